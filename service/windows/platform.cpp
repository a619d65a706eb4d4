// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"

#include "service/windows/eventsource.h"
#include "service/windows/lookup.h"

#include <QAbstractEventDispatcher>
#include <QLibrary>

#include <array>
#include <vector>

#include <windows.h>

#include <shlobj.h>

using namespace Qt::StringLiterals;

namespace {

// The longest path that Windows knows, with its null.
constexpr size_t LongestPath = 32768;

template<typename Function>
void resolve(const Windows::Resolver &resolver, const char *name, Function &function)
{
    function = reinterpret_cast<Function>(resolver(name));
}

// The library stays loaded when its object is gone.
Windows::Resolver resolverOf(const QString &library)
{
    return [library](const char *name) { return QLibrary(library).resolve(name); };
}

void provide(Scm::Functions &functions)
{
    Windows::provide(functions, resolverOf(u"advapi32"_s));
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

// Qt's turn of the loop lasts here until no message of any socket is left.
void endEventLoopTurn()
{
    QAbstractEventDispatcher::instance()->interrupt();
}

std::optional<QString> commonDataFolder()
{
    return Windows::commonDataFolder(resolverOf(u"shell32"_s));
}

// The system sets no limit that a service meets.
int freeDescriptors(int most)
{
    return most;
}

} // namespace

namespace Windows {

void provide(Scm::Functions &functions, const Resolver &advapi32)
{
    static_assert(sizeof(Scm::Status) == sizeof(SERVICE_STATUS));
    static_assert(sizeof(Scm::TableEntry) == sizeof(SERVICE_TABLE_ENTRYW));
    static_assert(sizeof(Scm::Description) == sizeof(SERVICE_DESCRIPTIONW));

    resolve(advapi32, "RegisterServiceCtrlHandlerW", functions.registerServiceCtrlHandler);
    resolve(advapi32, "SetServiceStatus", functions.setServiceStatus);
    resolve(advapi32, "ChangeServiceConfig2W", functions.changeServiceConfig2);
    resolve(advapi32, "CloseServiceHandle", functions.closeServiceHandle);
    resolve(advapi32, "CreateServiceW", functions.createService);
    resolve(advapi32, "OpenSCManagerW", functions.openScManager);
    resolve(advapi32, "DeleteService", functions.deleteService);
    resolve(advapi32, "OpenServiceW", functions.openService);
    resolve(advapi32, "QueryServiceStatus", functions.queryServiceStatus);
    resolve(advapi32, "StartServiceCtrlDispatcherW", functions.startServiceCtrlDispatcher);
    resolve(advapi32, "StartServiceW", functions.startService);
    resolve(advapi32, "ControlService", functions.controlService);
    resolve(advapi32, "DeregisterEventSource", functions.deregisterEventSource);
    resolve(advapi32, "ReportEventW", functions.reportEvent);
    resolve(advapi32, "RegisterEventSourceW", functions.registerEventSource);
    resolve(advapi32, "QueryServiceConfigW", functions.queryServiceConfig);
    resolve(advapi32, "QueryServiceConfig2W", functions.queryServiceConfig2);
}

std::optional<QString> commonDataFolder(const Resolver &shell32)
{
    using GetSpecialFolderPath = BOOL(WINAPI *)(HWND owner, wchar_t * path, int folder, BOOL create);
    GetSpecialFolderPath getSpecialFolderPath = nullptr;
    resolve(shell32, "SHGetSpecialFolderPathW", getSpecialFolderPath);
    if (!getSpecialFolderPath) {
        return std::nullopt;
    }
    std::array<wchar_t, MAX_PATH> path{};
    getSpecialFolderPath(nullptr, path.data(), CSIDL_COMMON_APPDATA, FALSE);
    return QString::fromWCharArray(path.data());
}

} // namespace Windows

constinit Platform platform{
    .provide = provide,
    .lastError = lastError,
    .errorText = errorText,
    .registerMessageFile = Windows::registerMessageFile,
    .removeMessageFile = Windows::removeMessageFile,
    .executablePath = executablePath,
    .commonDataFolder = commonDataFolder,
    .folderSeparator = u'\\',
    .canDeleteOpenFiles = false,
    .freeDescriptors = freeDescriptors,
    .endEventLoopTurn = endEventLoopTurn,
};
