// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/watch/jobcontrol.h"
#include "tools/watch/keys.h"
#include "tools/watch/radiotable.h"
#include "tools/watch/screen.h"
#include "tools/watch/tableview.h"

#include <QElapsedTimer>
#include <QTimer>

#include <memory>
#include <optional>

namespace WatchTool {

// A table on the terminal, as long as the object lives: drawn anew when something has changed, at most ten
// times a second. While the process is stopped, or in the background, the terminal is left alone.
class LiveTable
{
public:
    // Both called in the event loop, later: the object may be destroyed then.
    std::function<void()> onQuit;       // a key asks for it
    std::function<void()> onOutputLost; // the terminal cannot be written to

    // Both outlive it; clock: of the table's times.
    LiveTable(RadioTable &table, const QElapsedTimer &clock);
    ~LiveTable();
    Q_DISABLE_COPY_MOVE(LiveTable)

    // isOld: the server is away, and the radios are shown as they were.
    void setStatus(const QString &text, bool isOld);

private:
    void enter();
    void leave();
    void goOn();
    void pressed(const Key &key);
    void tick();
    void draw();
    QString head() const;
    bool isForeground() const { return !jobControl || jobControl->isForeground(); }

    RadioTable &table;
    const QElapsedTimer &clock;
    TableView view;
    std::unique_ptr<Keys> keys;             // none: standard input is no terminal
    std::unique_ptr<JobControl> jobControl; // none: the platform has none
    std::unique_ptr<Screen> screen;         // none: the terminal is another's
    QString status;
    std::optional<qint64> oldSince;
    QTimer ticks;
    QElapsedTimer sinceDrawn;
    ScreenSize drawnSize;
    bool isDirty = false;
};

} // namespace WatchTool
