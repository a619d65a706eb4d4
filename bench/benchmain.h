// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>
#include <exception>

// main() of a benchmark whose program is also its Helper: another process that the arguments ask for.
// Otherwise measure() has the arguments after the program's name. The text of a failure is printed.
template<typename Measure, typename Ask, typename Help>
int benchMain(int argc, char **argv, Measure measure, Ask isHelper, Help help)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    try {
        if (isHelper(arguments)) {
            help(arguments);
        } else {
            measure(arguments.mid(1));
        }
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return 0;
}
