// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>

#include <cstdio>
#include <cstdlib>

// Something does not work: there is no table then, and the exit code tells.
[[noreturn]] inline void fail(const QString &text)
{
    std::fprintf(stderr, "%s\n", qPrintable(text));
    std::exit(1);
}
