// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/commandline.h"
#include "tools/monitor/settings.h"

#include <QStringList>

namespace Monitor {

using CommandLine = Console::CommandLine<Settings>;

// arguments: without the program's name.
CommandLine parse(const QStringList &arguments);

} // namespace Monitor
