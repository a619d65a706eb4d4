// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/follow/connection.h"
#include "tools/follow/snapshot.h"
#include "tools/watch/events.h"
#include "tools/watch/livetable.h"
#include "tools/watch/radiotable.h"
#include "tools/watch/settings.h"

#include <QElapsedTimer>
#include <QTimer>

#include <memory>

namespace WatchTool {

constexpr int ExitIncomplete = 3;

// Follows the radios, or reports one, and ends the event loop with the tool's exit code.
class Watch
{
public:
    explicit Watch(const Settings &settings);
    Q_DISABLE_COPY_MOVE(Watch)

    void start();
    void interrupt();

private:
    void connected();
    void noticed(const QMR::Qmra::RadioNotice &notice);
    void lost(const QString &reason, qint64 pause);
    void timeIsOver();
    void status(const QString &text, bool isOld = false);
    void finish(int exitCode);

    const Settings settings;
    Follow::Connection connection;
    QElapsedTimer clock;
    RadioTable table;
    Follow::Snapshot snapshot;       // of --table
    std::unique_ptr<LiveTable> live; // where there is a terminal for it
    Events events;                   // of --json
    QTimer duration;
    quint64 notices = 0;
    bool wasConnected = false;
    bool finished = false;
};

} // namespace WatchTool
