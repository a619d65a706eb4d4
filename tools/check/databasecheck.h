// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/finding.h"

#include <chrono>
#include <memory>
#include <optional>

namespace CheckTool {

// Whether the server has a driver for its database.
Findings checkDriver();

// What kind of file it is, locks, integrity, what the server will make of its version, journal mode. Looked
// at in a copy in memory, made by pieces, so that a commit of the server's waits for one of them at most.
// patience: how long a lock may last, and the copying.
Findings checkDatabase(const QString &file, std::chrono::milliseconds patience);

// The radios that are stored. patience: how long a lock may last.
class RowCounter
{
public:
    RowCounter(const QString &file, std::chrono::milliseconds patience);
    ~RowCounter();
    Q_DISABLE_COPY_MOVE(RowCounter)

    // Nothing where they cannot be counted.
    std::optional<qint64> count() const;
    // Another number whenever somebody has changed the database since the last time.
    qint64 state() const;

private:
    class Source;
    std::unique_ptr<Source> source; // null: there is no file
};

} // namespace CheckTool
