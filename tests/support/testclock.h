// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/clock.h"

#include <QDateTime>

// The server's clock while it lives: it stands still until the test moves it.
class TestClock
{
public:
    explicit TestClock(const QDateTime &start = QDateTime(QDate(2026, 6, 1), QTime(12, 0), Qt::UTC))
        : time(start)
    {
        QMR::setClock([this] { return time; });
    }
    ~TestClock() { QMR::setClock({}); }
    Q_DISABLE_COPY_MOVE(TestClock)

    QDateTime now() const { return time; }
    qint64 seconds() const { return time.toSecsSinceEpoch(); }
    void set(const QDateTime &newTime) { time = newTime; }
    void advance(qint64 seconds) { time = time.addSecs(seconds); }

private:
    QDateTime time;
};
