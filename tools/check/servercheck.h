// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/configuration.h"
#include "tools/check/finding.h"

#include <chrono>
#include <optional>

namespace CheckTool {

// What one sees of the radios as an application.
struct Snapshot
{
    qint64 radios = 0;   // all of them
    qint64 pending = 0;  // of those, whose registration awaits confirmation: they may have no row
    bool isWhole = true; // the end of the table has been seen
};

// The two ports of the server of this machine, and the snapshot of the radios that it tells; nothing where
// none came. Nothing is sent; all that it leaves are the records of an application that has come and gone.
// patience: for the table, and again for the server to take notice of the end.
Findings checkServer(const QMR::Configuration &configuration, bool mayBeStopped,
                     std::chrono::milliseconds patience, std::optional<Snapshot> &snapshot);

} // namespace CheckTool
