// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/settings.h"

#include <QStringList>

namespace CheckTool {

struct CommandLine
{
    enum class Kind { Run, Print, Error };
    Kind kind = Kind::Error;
    Settings settings;
    QString text; // to be printed, or what is wrong

    // arguments: without the program's name.
    static CommandLine parse(const QStringList &arguments);
};

} // namespace CheckTool
