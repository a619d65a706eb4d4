// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"

#include <QAbstractEventDispatcher>
#include <QLibrary>

#include <array>
#include <vector>

#include <windows.h>

#include <shlobj.h>

using namespace Qt::StringLiterals;

namespace Platform {

namespace {

// The longest path that Windows knows, with its null.
constexpr size_t LongestPath = 32768;

// Null when the library has no such function.
template<typename Function>
void resolve(QLibrary &library, const char *name, Function &function)
{
    function = reinterpret_cast<Function>(library.resolve(name));
}

} // namespace

// The library stays loaded when its object is gone.
void provide(Scm::Functions &functions)
{
    static_assert(sizeof(Scm::Status) == sizeof(SERVICE_STATUS));
    static_assert(sizeof(Scm::TableEntry) == sizeof(SERVICE_TABLE_ENTRYW));
    static_assert(sizeof(Scm::Description) == sizeof(SERVICE_DESCRIPTIONW));

    QLibrary library(u"advapi32"_s);
    resolve(library, "RegisterServiceCtrlHandlerW", functions.registerServiceCtrlHandler);
    resolve(library, "SetServiceStatus", functions.setServiceStatus);
    resolve(library, "ChangeServiceConfig2W", functions.changeServiceConfig2);
    resolve(library, "CloseServiceHandle", functions.closeServiceHandle);
    resolve(library, "CreateServiceW", functions.createService);
    resolve(library, "OpenSCManagerW", functions.openScManager);
    resolve(library, "DeleteService", functions.deleteService);
    resolve(library, "OpenServiceW", functions.openService);
    resolve(library, "QueryServiceStatus", functions.queryServiceStatus);
    resolve(library, "StartServiceCtrlDispatcherW", functions.startServiceCtrlDispatcher);
    resolve(library, "StartServiceW", functions.startService);
    resolve(library, "ControlService", functions.controlService);
    resolve(library, "DeregisterEventSource", functions.deregisterEventSource);
    resolve(library, "ReportEventW", functions.reportEvent);
    resolve(library, "RegisterEventSourceW", functions.registerEventSource);
    resolve(library, "QueryServiceConfigW", functions.queryServiceConfig);
    resolve(library, "QueryServiceConfig2W", functions.queryServiceConfig2);
}

Scm::Dword lastError()
{
    return GetLastError();
}

QString errorText(Scm::Dword code)
{
    return qt_error_string(static_cast<int>(code));
}

QString executablePath()
{
    std::vector<wchar_t> buffer(MAX_PATH);
    for (;;) {
        const DWORD size = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
        // A path that does not fit is cut to the whole buffer.
        if (size < buffer.size() || buffer.size() >= LongestPath) {
            return QString::fromWCharArray(buffer.data(), static_cast<qsizetype>(size));
        }
        buffer.resize(LongestPath);
    }
}

void sleepMilliseconds(unsigned milliseconds)
{
    Sleep(milliseconds);
}

// Qt's turn of the loop lasts here until no message of any socket is left.
void endEventLoopTurn()
{
    QAbstractEventDispatcher::instance()->interrupt();
}

QString commonDataFolder()
{
    using GetSpecialFolderPath = BOOL(WINAPI *)(HWND owner, wchar_t * path, int folder, BOOL create);
    QLibrary library(u"shell32"_s);
    GetSpecialFolderPath getSpecialFolderPath = nullptr;
    resolve(library, "SHGetSpecialFolderPathW", getSpecialFolderPath);
    if (!getSpecialFolderPath) {
        return {};
    }
    std::array<wchar_t, MAX_PATH> path{};
    getSpecialFolderPath(nullptr, path.data(), CSIDL_COMMON_APPDATA, FALSE);
    return QString::fromWCharArray(path.data());
}

QChar folderSeparator()
{
    return u'\\';
}

} // namespace Platform
