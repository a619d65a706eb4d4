// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"
#include "tools/monitor/access.h"

#include <QList>

namespace Monitor {

constexpr quint16 DefaultListenPort = 9362;

// What the command line asks for.
struct Settings
{
    QList<Console::Endpoint> servers;
    QHostAddress address{QHostAddress::LocalHost}; // where the page is served
    quint16 port = DefaultListenPort;
    QList<Access::Network> networks; // from which it may be read; empty: from everywhere
    QString loginFile;               // empty: none is needed
};

} // namespace Monitor
