// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QProcess>
#include <QStringList>

// Applications that ask much of a server, all in one process of the lowest priority, which is this program
// run once more. They end with the object. Any failure ends the run.
class Crowd
{
public:
    enum class Kind {
        Trickle,   // reports, 50 bytes a second: there is always a rest to wait for
        Flood,     // valid messages without a pause
        Rubbish,   // 8 bytes that are no header, without a pause
        ComeAndGo, // connects and leaves, one after the other
        TakeSlowly // reads 32 KiB every 50 ms
    };

    // Returns when they are connected. Of those that come and go, count is how many are to have been.
    Crowd(Kind kind, quint16 port, int count);
    ~Crowd();
    Q_DISABLE_COPY_MOVE(Crowd)

    // So many have come and gone; they go on.
    bool hasCounted();
    bool isThere() const { return process.state() == QProcess::Running; }

    // Whether this process is one, and what it then does: until the server has gone.
    static bool isAsked(const QStringList &arguments);
    static void be(const QStringList &arguments);

private:
    QProcess process;
    bool counted = false;
};
