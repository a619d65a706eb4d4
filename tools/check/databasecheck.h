// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/finding.h"

#include <chrono>
#include <optional>

namespace CheckTool {

// Whether the server has a driver for its database.
Findings checkDriver();

// Version, journal mode, locks, integrity and rows of the database in the file. Everything is read from a
// copy in memory, so that the server waits for nothing but the copying. patience: how long a lock may last.
// rows: of the radios; nothing where they could not be counted.
Findings checkDatabase(const QString &file, std::chrono::milliseconds patience, std::optional<qint64> &rows);

} // namespace CheckTool
