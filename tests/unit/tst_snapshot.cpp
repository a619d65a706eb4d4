// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/snapshot.h"

#include <QTest>

using namespace Qt::StringLiterals;
using Follow::Snapshot;

class TestSnapshot : public QObject
{
    Q_OBJECT

    static constexpr int Never = 3'600'000; // ms: not within a test
    static constexpr int Soon = 1;
    static constexpr int Long = 2000; // longer than a busy machine takes for the next line

    bool takes(int serial) { return snapshot->takes({{0, 0, 0, 0, 0, 0, 0, static_cast<quint8>(serial)}}); }
    void begin(int pause, int standstill)
    {
        snapshot = std::make_unique<Snapshot>(pause, standstill);
        snapshot->onEnd = [this](qint64 radios) { told.append(u"end %1"_s.arg(radios)); };
        snapshot->onCertain = [this] { told.append(u"certain"_s); };
        snapshot->begin();
    }
    // A later one that has come to all its ends: one that was to come to an end before has done so.
    static void letTheOthersEnd(int standstill = Soon)
    {
        bool isCertain = false;
        Snapshot later(Soon, standstill);
        later.onCertain = [&isCertain] { isCertain = true; };
        later.begin();
        QTRY_VERIFY(isCertain);
    }

    std::unique_ptr<Snapshot> snapshot;
    QStringList told;

private slots:
    void cleanup() { told.clear(); }

    void changeShowsTheEndForCertain()
    {
        begin(Never, Never);
        QVERIFY(takes(3));
        QVERIFY(takes(5));
        QVERIFY(told.isEmpty());
        QVERIFY(!takes(4));
        QCOMPARE(told, (QStringList{u"end 2"_s, u"certain"_s}));
        QVERIFY(!takes(6));
        QCOMPARE(told.size(), 2);
    }
    void radioThatIsToldTwiceHasChanged()
    {
        begin(Never, Never);
        QVERIFY(takes(3));
        QVERIFY(!takes(3));
        QCOMPARE(told, (QStringList{u"end 1"_s, u"certain"_s}));
    }
    void pauseIsAnEndThatIsNotCertain()
    {
        begin(Soon, Never);
        QTRY_COMPARE(told, QStringList{u"end 0"_s});
        QVERIFY(!takes(3)); // the rest of a table that stood still counts as changes
        QVERIFY(!takes(2));
        letTheOthersEnd();
        QCOMPARE(told, QStringList{u"end 0"_s});
    }
    void standstillMakesItCertain()
    {
        begin(Soon, Soon);
        QTRY_COMPARE(told, (QStringList{u"end 0"_s, u"certain"_s}));
    }
    void lossOfTheConnectionEndsNothing()
    {
        begin(Soon, Soon);
        snapshot->abandon();
        letTheOthersEnd();
        QVERIFY(told.isEmpty());
        QVERIFY(!takes(3));
    }
    void lossAfterThePauseMakesNothingCertain()
    {
        begin(Soon, Long);
        QTRY_COMPARE(told, QStringList{u"end 0"_s});
        snapshot->abandon();
        letTheOthersEnd(Long);
        QCOMPARE(told, QStringList{u"end 0"_s});
    }
    void nextConnectionBeginsAnew()
    {
        begin(Never, Never);
        QVERIFY(takes(3));
        QVERIFY(!takes(2));
        told.clear();
        snapshot->begin();
        QVERIFY(takes(1));
        QVERIFY(takes(2));
        QVERIFY(!takes(2));
        QCOMPARE(told, (QStringList{u"end 2"_s, u"certain"_s}));
    }
};

QTEST_GUILESS_MAIN(TestSnapshot)
#include "tst_snapshot.moc"
