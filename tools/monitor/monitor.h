// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/follow/connection.h"
#include "tools/follow/snapshot.h"
#include "tools/monitor/httpserver.h"
#include "tools/monitor/observed.h"
#include "tools/monitor/settings.h"
#include "tools/monitor/site.h"

#include <QElapsedTimer>
#include <QTimer>

#include <memory>
#include <vector>

namespace Monitor {

// The whole of it: follows the servers, and serves what they tell.
class Monitor
{
public:
    Monitor(const Settings &settings, Access access);
    Q_DISABLE_COPY_MOVE(Monitor)

    // False: it cannot listen, and has said why on standard error.
    bool start();
    quint16 port() const { return http.port(); }

private:
    struct Followed
    {
        explicit Followed(const Console::Endpoint &server) : connection(server) {}

        Follow::Connection connection;
        Follow::Snapshot snapshot;
    };

    void follow(int index);
    void noticed(int index, const QMR::Qmra::RadioNotice &notice);
    void putStatusIntoWords();
    qint64 steadyNow() const;

    const Settings settings;
    QElapsedTimer steady;
    Observed observed;
    Site site;
    HttpServer http;
    std::vector<std::unique_ptr<Followed>> followed;
    QTimer tell;   // the streams what has changed
    QTimer status; // each second anew
};

} // namespace Monitor
