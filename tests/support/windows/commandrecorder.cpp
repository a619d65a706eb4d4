// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Stands in for a program of the system that the installer calls: writes down its command line, and exits
// with the number in C:\recorder-exit-code, 0 where there is none.

#include <windows.h>

#include <cstdio>

int main()
{
    if (FILE *const record = std::fopen("C:\\recorded-commands.txt", "a")) {
        std::fprintf(record, "%s\n", GetCommandLineA());
        std::fclose(record);
    }
    int exitCode = 0;
    if (FILE *const wanted = std::fopen("C:\\recorder-exit-code", "r")) {
        if (std::fscanf(wanted, "%d", &exitCode) != 1) {
            exitCode = -1;
        }
        std::fclose(wanted);
    }
    return exitCode;
}
