// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/monitor/access.h"
#include "tools/monitor/http.h"
#include "tools/monitor/observed.h"

#include <functional>

namespace Monitor {

// What is at which path, and who may have it.
class Site
{
public:
    struct Clock
    {
        std::function<qint64()> now;    // ms since 1970, UTC
        std::function<qint64()> steady; // ms, and never goes back
    };

    Site(Observed &observed, Access access, bool isLocal, QString version, Clock clock);

    Answer answer(const Request &request) const;
    // How many follow the events; told by whoever knows.
    std::function<size_t()> streams = [] { return size_t{0}; };

private:
    Answer found(const Request &request) const;
    Answer health(bool isKnown) const;
    Answer listing(const QUrlQuery &query) const;
    Answer radio(const QString &esn) const;

    Observed &observed;
    const Access access;
    const bool isLocal; // it is served at a loopback address
    const QString version;
    const Clock clock;
};

} // namespace Monitor
