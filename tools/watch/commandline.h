// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/watch/settings.h"

#include <QStringList>

namespace WatchTool {

// The command line, understood: settings to run with, a text to print instead (help, version), or an error.
struct CommandLine
{
    enum class Kind { Run, Print, Error };

    Kind kind = Kind::Run;
    Settings settings;
    QString text;

    // arguments: without the program's name.
    static CommandLine parse(const QStringList &arguments);
};

} // namespace WatchTool
