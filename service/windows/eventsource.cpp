// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/windows/eventsource.h"

#include <string>

#include <windows.h>

using namespace Qt::StringLiterals;

namespace Windows {

namespace {

// Empty when the source has no name to make a key of. The name ends at its first U+0000, as it does for every
// other function of the system.
std::wstring registryKey(const QString &source)
{
    const QString name = source.section(QChar(0), 0, 0);
    const QString key = u"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\"_s + name;
    return name.isEmpty() ? std::wstring() : key.toStdWString();
}

} // namespace

void registerMessageFile(const QString &source, const QString &file)
{
    const std::wstring name = registryKey(source);
    HKEY key = nullptr;
    if (name.empty() || RegCreateKeyExW(HKEY_LOCAL_MACHINE, name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                        KEY_SET_VALUE, nullptr, &key, nullptr) != ERROR_SUCCESS) {
        return;
    }
    const auto set = [key](const wchar_t *value, DWORD type, const void *data, size_t size) {
        RegSetValueExW(key, value, 0, type, static_cast<const BYTE *>(data), static_cast<DWORD>(size));
    };
    // Not a string with variables: a path may contain percent signs.
    const std::wstring path = file.toStdWString();
    set(L"EventMessageFile", REG_SZ, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
    set(L"TypesSupported", REG_DWORD, &types, sizeof types);
    RegCloseKey(key);
}

void removeMessageFile(const QString &source)
{
    const std::wstring name = registryKey(source);
    if (!name.empty()) {
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, name.c_str(), KEY_WOW64_64KEY, 0);
    }
}

} // namespace Windows
