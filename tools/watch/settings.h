// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"

#include <optional>

namespace WatchTool {

enum class Output { Lines, Json, Table };

// What the command line asks for.
struct Settings
{
    Console::Endpoint server{QHostAddress(QHostAddress::LocalHost), Console::DefaultPort};
    Output output = Output::Lines;
    quint64 count = 0;   // end after so many notices; 0: any number
    qint64 duration = 0; // ms; 0: until interrupted
    struct Report
    {
        QMR::Esn esn;
        QHostAddress address;
    };
    std::optional<Report> report; // to be sent, and its effect waited for
};

} // namespace WatchTool
