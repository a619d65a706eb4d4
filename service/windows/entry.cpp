// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"

#include <QtGlobal>

#include <string>
#include <vector>

#include <windows.h>

#include <shellapi.h>

namespace {

// In the system's ANSI code page. Characters that it lacks are altered: that is accepted.
std::string ansi(const wchar_t *text)
{
    const int size = WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 0) {
        return {};
    }
    std::string result(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, 0, text, -1, result.data(), size, nullptr, nullptr);
    result.pop_back(); // the null
    return result;
}

} // namespace

int main()
{
    // Nobody is there to answer a dialog: what fails is an error of its call, and a crash ends the process.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    // Qt would keep its warnings from a standard error that leads to a file or another program.
    qputenv("QT_FORCE_STDERR_LOGGING", "1");

    int count = 0;
    wchar_t **wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (!wide) {
        return -1;
    }
    std::vector<std::string> arguments;
    arguments.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        arguments.push_back(ansi(wide[i]));
    }
    LocalFree(wide);

    std::vector<char *> vector;
    vector.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) {
        vector.push_back(argument.data());
    }
    vector.push_back(nullptr);
    return processMain(count, vector.data());
}
