// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/clock.h"

#include <QDateTime>

#include <chrono>

// The server's clock while it lives: it stands still until the test moves it. So does the time that the
// server takes for its work, unless the test lets some pass: then the same work is interrupted at the same
// places, however quick the machine.
class TestClock
{
public:
    explicit TestClock(const QDateTime &start = QDateTime(QDate(2026, 6, 1), QTime(12, 0), Qt::UTC))
        : time(start)
    {
        QMR::setClock([this] { return time; });
        QMR::setElapsedTime([this] { return elapsed += aLook; });
    }
    ~TestClock()
    {
        QMR::setClock({});
        QMR::setElapsedTime({});
    }
    Q_DISABLE_COPY_MOVE(TestClock)

    QDateTime now() const { return time; }
    qint64 seconds() const { return time.toSecsSinceEpoch(); }
    void set(const QDateTime &newTime) { time = newTime; }
    void advance(qint64 seconds) { time = time.addSecs(seconds); }

    // The time that passes for the server's work up to each look at it.
    void workTakes(std::chrono::nanoseconds timeALook) { aLook = timeALook; }
    // It takes so long once.
    void workPauses(std::chrono::nanoseconds pause) { elapsed += pause; }

private:
    QDateTime time;
    std::chrono::nanoseconds elapsed{};
    std::chrono::nanoseconds aLook{};
};
