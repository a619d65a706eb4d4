// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/follow/connection.h"
#include "tools/watch/events.h"
#include "tools/watch/radiotable.h"
#include "tools/watch/screen.h"
#include "tools/watch/settings.h"

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
    void draw();
    void status(const QString &text);
    void finish(int exitCode);

    const Settings settings;
    Follow::Connection connection;
    RadioTable table;
    Events events;                  // of --json
    std::unique_ptr<Screen> screen; // of a live table
    QTimer duration;
    QTimer redraw; // of the table, with the window's size of then
    QString statusText;
    quint64 notices = 0;
    bool wasConnected = false;
    bool finished = false;
};

} // namespace WatchTool
