// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/statistics.h"

#include <QTest>

#include <limits>

using RadioTool::Statistics;

class TestRadioStatistics : public QObject
{
    Q_OBJECT

private slots:
    void nothingMeasuredIsZero()
    {
        const Statistics statistics;
        QCOMPARE(statistics.acknowledged(), 0U);
        QCOMPARE(statistics.percentile(50), 0U);
        QCOMPARE(statistics.maximum(), 0U);
        QCOMPARE(statistics.acknowledgedPerSecond(), 0.0);
    }

    void percentilesAreOfTheNearestRank()
    {
        Statistics statistics;
        for (int microseconds = 1000; microseconds >= 1; --microseconds) {
            statistics.addLatency(microseconds * 1000);
        }
        QCOMPARE(statistics.acknowledged(), 1000U);
        QCOMPARE(statistics.percentile(50), 500U);
        QCOMPARE(statistics.percentile(90), 900U);
        QCOMPARE(statistics.percentile(99), 990U);
        QCOMPARE(statistics.percentile(99.95), 1000U);
        QCOMPARE(statistics.percentile(100), 1000U);
        QCOMPARE(statistics.percentile(0.01), 1U);
    }

    void oneValueIsEveryPercentile()
    {
        Statistics statistics;
        statistics.addLatency(700'999);
        QCOMPARE(statistics.percentile(50), 700U);
        QCOMPARE(statistics.percentile(99), 700U);
        QCOMPARE(statistics.maximum(), 700U);
    }

    void oneOutlierIsTheMaximumOnly()
    {
        Statistics statistics;
        for (int i = 0; i < 99; ++i) {
            statistics.addLatency(100'000);
        }
        statistics.addLatency(5'000'000'000);
        QCOMPARE(statistics.percentile(99), 100U);
        QCOMPARE(statistics.maximum(), 5'000'000U);
    }

    void largeValuesAreWithinAThousandth_data()
    {
        QTest::addColumn<qint64>("microseconds");
        for (const qint64 value : {0LL, 1LL, 2047LL, 2048LL, 2049LL, 4095LL, 4096LL, 123'456LL, 2'000'000LL,
                                   3'600'000'000LL, 0xFFFFFFFFLL}) {
            QTest::addRow("%lld", value) << qint64{value};
        }
    }
    void largeValuesAreWithinAThousandth()
    {
        QFETCH(qint64, microseconds);
        Statistics statistics;
        statistics.addLatency(microseconds * 1000);
        const auto found = static_cast<qint64>(statistics.percentile(50));
        QVERIFY(found <= microseconds);
        QVERIFY2(microseconds - found <= microseconds / 1000, qPrintable(QString::number(found)));
        QVERIFY(microseconds > 2048 || found == microseconds);
        QCOMPARE(static_cast<qint64>(statistics.maximum()), microseconds);
    }

    void impossibleValuesAreKeptInRange()
    {
        Statistics statistics;
        statistics.addLatency(-1);
        QCOMPARE(statistics.percentile(100), 0U);
        statistics.addLatency(std::numeric_limits<qint64>::max());
        QCOMPARE(statistics.maximum(), 0xFFFFFFFFU);
    }

    void rateIsOfTheAcknowledgedOnes()
    {
        Statistics statistics;
        statistics.sent = 10;
        statistics.addLatency(1);
        statistics.addLatency(1);
        statistics.elapsed = 500;
        QCOMPARE(statistics.acknowledgedPerSecond(), 4.0);
    }
};

QTEST_APPLESS_MAIN(TestRadioStatistics)
#include "tst_radiostatistics.moc"
