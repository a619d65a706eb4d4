// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/settings.h"
#include "tools/commandline.h"

#include <QStringList>

namespace CheckTool {

using CommandLine = Console::CommandLine<Settings>;

// arguments: without the program's name.
CommandLine parse(const QStringList &arguments);

} // namespace CheckTool
