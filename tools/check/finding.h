// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QList>
#include <QString>

namespace CheckTool {

// The exit codes of plugins for monitoring systems.
enum class State : quint8 {
    Ok = 0,
    Warning = 1,  // it works, and somebody should look
    Critical = 2, // it does not work, or not as it is set to
    Unknown = 3,  // it could not be looked at
};

struct Finding
{
    QString subject; // one word
    State state = State::Ok;
    QString text;
};

using Findings = QList<Finding>;

} // namespace CheckTool
