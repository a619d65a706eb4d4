// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/rate.h"

#include <QTest>

#include <numeric>

using Monitor::Rate;

class TestMonitorRate : public QObject
{
    Q_OBJECT

    using Counts = std::vector<quint32>;

private slots:
    void countsEachWholePeriod()
    {
        Rate rate(1000, 3, 10500);
        rate.count(10999);
        rate.count(11000);
        rate.count(11001);
        QCOMPARE(rate.counts(11999), (Counts{0, 0, 1})); // the one that goes on is not told
        QCOMPARE(rate.counts(12000), (Counts{0, 1, 2}));
        QCOMPARE(rate.last(12000), 2U);
        rate.count(12500);
        rate.count(13500);
        QCOMPARE(rate.counts(14000), (Counts{2, 1, 1}));
        QCOMPARE(rate.counts(16000), (Counts{1, 0, 0}));
        QCOMPARE(rate.last(16000), 0U);
    }
    void longPausesLeaveNothing()
    {
        Rate rate(1000, 3, 0);
        for (qint64 now = 0; now < 4000; now += 100) {
            rate.count(now);
        }
        QCOMPARE(rate.counts(4000), (Counts{10, 10, 10}));
        QCOMPARE(rate.counts(1'000'000'000'000), (Counts{0, 0, 0}));
    }
    void timeDoesNotGoBack()
    {
        Rate rate(1000, 2, 5000);
        rate.count(5000);
        rate.count(3000);
        QCOMPARE(rate.counts(6000), (Counts{0, 2}));
    }
};

QTEST_APPLESS_MAIN(TestMonitorRate)
#include "tst_monitorrate.moc"
