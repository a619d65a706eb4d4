// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/clock.h"
#include "tests/support/testclock.h"

#include <QTest>

using namespace std::chrono_literals;

class TestClocks : public QObject
{
    Q_OBJECT

private slots:
    void withoutReplacementTimeIsTheMachines()
    {
        {
            const TestClock clock;
        }
        const auto before = std::chrono::steady_clock::now().time_since_epoch();
        const std::chrono::nanoseconds elapsed = QMR::elapsedTime();
        QVERIFY(before <= elapsed);
        QVERIFY(elapsed <= std::chrono::steady_clock::now().time_since_epoch());
        const QDateTime then = QDateTime::currentDateTimeUtc();
        const QDateTime now = QMR::currentTime();
        QCOMPARE(now.timeSpec(), Qt::UTC);
        QVERIFY(qAbs(then.msecsTo(now)) < 60'000);
    }

    void sliceIsOverAtItsEnd()
    {
        TestClock clock;
        clock.workPauses(1h);
        const QMR::TimeSlice slice(5ms);
        QVERIFY(!slice.isOver());
        clock.workPauses(5ms - 1ns);
        QVERIFY(!slice.isOver());
        clock.workPauses(1ns);
        QVERIFY(slice.isOver());
        clock.workPauses(1h);
        QVERIFY(slice.isOver());
    }

    void longestSliceIsNeverOver()
    {
        TestClock clock;
        clock.workPauses(1h);
        const QMR::TimeSlice slice(std::chrono::nanoseconds::max());
        clock.workPauses(24h);
        QVERIFY(!slice.isOver());
    }
};

QTEST_APPLESS_MAIN(TestClocks)
#include "tst_clock.moc"
