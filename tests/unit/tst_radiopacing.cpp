// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/pacing.h"

#include <QTest>

using RadioTool::Pacing;

namespace {

constexpr qint64 Second = 1'000'000'000;

} // namespace

class TestRadioPacing : public QObject
{
    Q_OBJECT

private slots:
    void eachIsDueAtItsOwnTime_data()
    {
        QTest::addColumn<double>("rate");
        QTest::addColumn<quint64>("index");
        QTest::addColumn<qint64>("time");
        const auto row = [](const char *name, double rate, quint64 index, qint64 time) {
            QTest::newRow(name) << rate << index << time;
        };
        row("the first at once", 3, 0, 0);
        row("whole", 1000, 5, 5'000'000);
        row("rounded up", 3, 1, 333'333'334);
        row("the rounding does not add up", 3, 3'000'000, 1'000'000 * Second);
        row("nor at any later one", 3, 3'000'001, 1'000'000 * Second + 333'333'334);
        row("slowest", 0.001, 2, 2000 * Second);
        row("fastest", 1'000'000, 1, 1000);
        row("fastest, a year", 1'000'000, 31'536'000'000'000, 31'536'000 * Second);
        row("thousandths", 12'345.678, 12'345'678, 1000 * Second);
        row("a million radios", 50'000, 999'999, 19'999'980'000);
        row("all the digits", 999'999.999, 999'999'999 * quint64{1000} + 999'999'998,
            1'000'999 * Second + 999'999'000);
    }
    void eachIsDueAtItsOwnTime()
    {
        QFETCH(double, rate);
        QFETCH(quint64, index);
        QFETCH(qint64, time);
        const Pacing pacing(rate);
        QCOMPARE(pacing.timeOf(index), time);
        QCOMPARE(pacing.dueBy(time), index + 1);
        if (time > 0) {
            QCOMPARE(pacing.dueBy(time - 1), index);
        }
    }

    // A turn that comes late owes what is due by then, no more and no less: the next time is the same.
    void latenessIsNotCarriedOn()
    {
        const Pacing pacing(50'000);
        quint64 sent = 0;
        qint64 now = 0;
        for (const qint64 late : {0, 7, 1'234'567, 900'000'001, 13, 3}) {
            now = pacing.timeOf(sent) + late;
            sent = pacing.dueBy(now);
            QCOMPARE(sent, static_cast<quint64>(now) / 20'000 + 1);
        }
        QCOMPARE(pacing.timeOf(sent), static_cast<qint64>(sent) * 20'000);
    }

    void bothDirectionsAgree_data()
    {
        QTest::addColumn<double>("rate");
        for (const double rate : {0.001, 0.7, 3.0, 999.999, 7'919.0, 50'000.0, 999'983.0, 1'000'000.0}) {
            QTest::addRow("%g", rate) << rate;
        }
    }
    void bothDirectionsAgree()
    {
        QFETCH(double, rate);
        const Pacing pacing(rate);
        quint64 step = 1;
        for (quint64 index = 0; pacing.timeOf(index) < 31'536'000 * Second;
             index += step, step += step / 3 + 1) {
            const qint64 time = pacing.timeOf(index);
            QVERIFY(pacing.timeOf(index + 1) > time);
            QCOMPARE(pacing.dueBy(time), index + 1);
            QCOMPARE(pacing.dueBy(pacing.timeOf(index + 1) - 1), index + 1);
        }
    }
};

QTEST_APPLESS_MAIN(TestRadioPacing)
#include "tst_radiopacing.moc"
