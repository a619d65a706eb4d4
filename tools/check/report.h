// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/finding.h"
#include "tools/check/servercheck.h"

#include <QJsonObject>

#include <optional>

namespace CheckTool {

// What has been found, as it is told.
struct Report
{
    Findings findings;
    std::optional<Snapshot> snapshot;
    std::optional<qint64> rows;

    // The gravest of all: critical before warning before unknown.
    State state() const;

    // The first line sums up, with figures behind "|" as monitoring systems want them; then a line a finding.
    QString text() const;
    QJsonObject json() const;
};

} // namespace CheckTool
