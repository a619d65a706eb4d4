// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// servicecontrol NAME status | config | start | control CODE
// Asks the service manager about a service, past the server's own command line, and prints one JSON object; a
// call that fails prints {"error":CODE} and ends with 1.

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <array>
#include <cstdio>

#include <windows.h>

using namespace Qt::StringLiterals;

namespace {

using Buffer = std::array<BYTE, 8192>;

int print(const QJsonObject &object)
{
    std::printf("%s\n", QJsonDocument(object).toJson(QJsonDocument::Compact).constData());
    return object.contains("error"_L1) ? 1 : 0;
}

QJsonObject failure()
{
    return {{u"error"_s, static_cast<qint64>(GetLastError())}};
}

QJsonObject object(const SERVICE_STATUS &status)
{
    return {{u"type"_s, static_cast<qint64>(status.dwServiceType)},
            {u"state"_s, static_cast<qint64>(status.dwCurrentState)},
            {u"accepted"_s, static_cast<qint64>(status.dwControlsAccepted)},
            {u"exitCode"_s, static_cast<qint64>(status.dwWin32ExitCode)},
            {u"checkPoint"_s, static_cast<qint64>(status.dwCheckPoint)},
            {u"waitHint"_s, static_cast<qint64>(status.dwWaitHint)}};
}

QJsonObject control(SC_HANDLE service, DWORD code)
{
    SERVICE_STATUS status{};
    return ControlService(service, code, &status) ? object(status) : failure();
}

QJsonObject state(SC_HANDLE service)
{
    SERVICE_STATUS status{};
    return QueryServiceStatus(service, &status) ? object(status) : failure();
}

QJsonObject configuration(SC_HANDLE service)
{
    alignas(8) Buffer buffer{};
    alignas(8) Buffer more{};
    DWORD needed = 0;
    auto *config = reinterpret_cast<QUERY_SERVICE_CONFIGW *>(buffer.data());
    if (!QueryServiceConfigW(service, config, sizeof buffer, &needed) ||
        !QueryServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, more.data(), sizeof more, &needed)) {
        return failure();
    }
    const auto *description = reinterpret_cast<SERVICE_DESCRIPTIONW *>(more.data());
    return {{u"type"_s, static_cast<qint64>(config->dwServiceType)},
            {u"start"_s, static_cast<qint64>(config->dwStartType)},
            {u"errorControl"_s, static_cast<qint64>(config->dwErrorControl)},
            {u"path"_s, QString::fromWCharArray(config->lpBinaryPathName)},
            {u"group"_s, QString::fromWCharArray(config->lpLoadOrderGroup)},
            {u"account"_s, QString::fromWCharArray(config->lpServiceStartName)},
            {u"displayName"_s, QString::fromWCharArray(config->lpDisplayName)},
            {u"description"_s, QString::fromWCharArray(description->lpDescription)}};
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const std::wstring name = arguments.value(1).toStdWString();
    const QString verb = arguments.value(2);

    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE service = manager ? OpenServiceW(manager, name.c_str(), SERVICE_ALL_ACCESS) : nullptr;
    if (!service) {
        return print(failure());
    }
    if (verb == "status"_L1) {
        return print(state(service));
    }
    if (verb == "config"_L1) {
        return print(configuration(service));
    }
    if (verb == "start"_L1) {
        return print(StartServiceW(service, 0, nullptr) ? state(service) : failure());
    }
    return print(control(service, arguments.value(3).toUInt()));
}
