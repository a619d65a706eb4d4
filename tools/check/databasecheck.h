// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/finding.h"

#include <chrono>
#include <optional>

namespace CheckTool {

// Whether the server has a driver for its database.
Findings checkDriver();

// What kind of file it is, locks, integrity, what the server will make of its version, journal mode. Looked
// at in a copy in memory, made by pieces, so that a commit of the server's waits for one of them at most.
// patience: how long a lock may last, and the copying.
Findings checkDatabase(const QString &file, std::chrono::milliseconds patience);

// The radios that are stored. Nothing where they cannot be counted.
std::optional<qint64> countRows(const QString &file, std::chrono::milliseconds patience);

} // namespace CheckTool
