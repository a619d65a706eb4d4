// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"
#include "tools/monitor/http.h"
#include "tools/monitor/table.h"

#include <QUrlQuery>

#include <optional>

namespace Monitor {

// Which of the radios somebody wants to see.
struct Listing
{
    static constexpr qint64 MostRadios = 10000;

    std::optional<int> state; // its kind
    std::optional<quint8> service;
    QString server; // empty: of any
    QString search;
    qint64 offset = 0;
    qint64 limit = 100;

    // Out of "state", "service", "server", "query", "offset" and "limit".
    static Console::Parsed<Listing> parse(const QUrlQuery &query);

    // "total", how many there are, and "radios", limit of them from offset on, in ESN order for each server.
    QByteArray text(const Table &table) const;
};

} // namespace Monitor
