// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/commandline.h"
#include "tools/watch/settings.h"

#include <QStringList>

namespace WatchTool {

using CommandLine = Console::CommandLine<Settings>;

// arguments: without the program's name.
CommandLine parse(const QStringList &arguments);

} // namespace WatchTool
