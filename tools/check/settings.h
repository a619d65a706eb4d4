// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>

#include <chrono>

namespace CheckTool {

// What the command line asks for.
struct Settings
{
    QString folder;  // of configuration and database; empty: the service's
    QString account; // of the service; empty: the folder's owner
    bool mayBeStopped = false;
    bool asJson = false;
    std::chrono::milliseconds timeout{2000}; // for each lock, copy and answer
};

} // namespace CheckTool
