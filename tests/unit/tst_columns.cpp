// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/columns.h"

#include "tests/support/radionotice.h"

#include <QTest>

using namespace Qt::StringLiterals;

using namespace WatchTool;

namespace {

const QString Esn = u"0011AABB22CC3305"_s;

TableRadio radio(quint8 availability = QMR::Unreachable)
{
    TableRadio radio;
    radio.notice = radioNotice(5, availability);
    radio.changed = 1000;
    return radio;
}

QString row(int width, qint64 now = 60'000)
{
    return Columns(width).row(radio(), true, now, false);
}

} // namespace

class TestColumns : public QObject
{
    Q_OBJECT

private slots:
    void wideLineHasEverything()
    {
        QCOMPARE(row(100), u"> 0011AABB22CC3305 01234/567/89AB05  10.0.0.5        unreachable 59 s    1,3"_s);
        QCOMPARE(Columns(100).heading(),
                 u"  ESN              WACN/SYSTEM/UNIT  ADDRESS         STATE       CHANGED SERVICES"_s);
    }

    void onlyTheLastIsMarked() { QVERIFY(Columns(100).row(radio(), false, 0, false).startsWith(u"  00"_s)); }

    void plainLineHasNoAge()
    {
        QCOMPARE(Columns::plain().row(radio(), false, 60'000, false),
                 u"  0011AABB22CC3305 01234/567/89AB05  10.0.0.5        unreachable 1,3"_s);
    }

    void radioThatHasNotChangedHasADash()
    {
        TableRadio unchanged = radio();
        unchanged.changed.reset();
        QVERIFY(Columns(100).row(unchanged, false, 60'000, false).contains(u"unreachable -       1,3"_s));
    }

    // What is there from which width on, and not with one column less.
    void columnsComeInTheirOrder_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<QString>("line");
        QTest::newRow("cut state") << 5 << u"unrea"_s;
        QTest::newRow("state") << 11 << u"unreachable"_s;
        QTest::newRow("before the mark") << 12 << u"unreachable "_s;
        QTest::newRow("mark") << 13 << u"> unreachable"_s;
        QTest::newRow("before the ESN") << 15 << u"> unreachable "_s;
        QTest::newRow("end of the ESN") << 16 << u"> ~5 unreachable"_s;
        QTest::newRow("more of the ESN") << 20 << u"> ~C3305 unreachable"_s;
        QTest::newRow("before the whole ESN") << 29 << u"> ~11AABB22CC3305 unreachable"_s;
        QTest::newRow("ESN") << 30 << u"> 0011AABB22CC3305 unreachable"_s;
        QTest::newRow("before the age") << 37 << u"> 0011AABB22CC3305 unreachable "_s;
        QTest::newRow("age") << 38 << u"> 0011AABB22CC3305 unreachable 59 s   "_s;
        QTest::newRow("before the address") << 53 << u"> 0011AABB22CC3305 unreachable 59 s    "_s;
        QTest::newRow("address") << 54 << u"> 0011AABB22CC3305 10.0.0.5        unreachable 59 s   "_s;
        QTest::newRow("before the SUID")
            << 71 << u"> 0011AABB22CC3305 10.0.0.5        unreachable 59 s    "_s;
        QTest::newRow("SUID")
            << 72 << u"> 0011AABB22CC3305 01234/567/89AB05  10.0.0.5        unreachable 59 s   "_s;
        QTest::newRow("cut services")
            << 75 << u"> 0011AABB22CC3305 01234/567/89AB05  10.0.0.5        unreachable 59 s    1~"_s;
        QTest::newRow("services")
            << 76 << u"> 0011AABB22CC3305 01234/567/89AB05  10.0.0.5        unreachable 59 s    1,3"_s;
    }
    void columnsComeInTheirOrder()
    {
        QFETCH(int, width);
        QFETCH(QString, line);
        QCOMPARE(row(width), line);
    }

    void stateIsCutOnlyWhereNothingElseIsLeft()
    {
        for (int width = 1; width <= 120; ++width) {
            const QString line = row(width);
            QVERIFY2(line.size() <= width, qPrintable(line));
            QVERIFY2(Columns(width).heading().size() <= width, qPrintable(Columns(width).heading()));
            QVERIFY2(line.contains(u"unreachable"_s) || line == u"unreachable"_s.left(width),
                     qPrintable(line));
            QVERIFY2(width < 30 || line.contains(Esn), qPrintable(line));
            const auto coloured = Columns(width).row(radio(), true, 60'000, true);
            QVERIFY2(coloured.contains(u"\033[31munre"_s.left(5 + width)), qPrintable(coloured));
            QCOMPARE(QString(coloured).remove(u"\033[31m"_s).remove(u"\033[0m"_s), line);
        }
        QCOMPARE(row(0), row(1));
    }

    void stateIsColouredAndNothingElse_data()
    {
        QTest::addColumn<int>("availability");
        QTest::addColumn<bool>("pending");
        QTest::addColumn<QString>("coloured");
        QTest::newRow("unreachable") << int{QMR::Unreachable} << false
                                     << u"\033[31munreachable \033[0m59 s"_s;
        QTest::newRow("unconfirmed") << int{QMR::Unconfirmed} << false
                                     << u"\033[33munconfirmed \033[0m59 s"_s;
        QTest::newRow("registered") << int{QMR::Registered} << false << u"\033[32mregistered  \033[0m59 s"_s;
        QTest::newRow("pending") << int{QMR::Registered} << true << u"\033[36mpending     \033[0m59 s"_s;
        QTest::newRow("gone") << int{QMR::Deregistered} << false << u"\033[2mgone        \033[0m59 s"_s;
        QTest::newRow("other") << 77 << false << u"\033[2m77          \033[0m59 s"_s;
    }
    void stateIsColouredAndNothingElse()
    {
        QFETCH(int, availability);
        QFETCH(bool, pending);
        QFETCH(QString, coloured);
        TableRadio shown = radio(static_cast<quint8>(availability));
        shown.notice.pending = pending;
        const QString line = Columns(80).row(shown, false, 60'000, true);
        QVERIFY2(line.contains(coloured), qPrintable(line));
        QCOMPARE(line.count(u'\033'), 2);
        QVERIFY(!Columns(80).row(shown, false, 60'000, false).contains(u'\033'));
    }

    void agesAreInWholeUnits_data()
    {
        QTest::addColumn<qint64>("milliseconds");
        QTest::addColumn<QString>("text");
        constexpr qint64 Second = 1000;
        QTest::newRow("nothing") << qint64{0} << u"0 s"_s;
        QTest::newRow("under a second") << qint64{999} << u"0 s"_s;
        QTest::newRow("second") << Second << u"1 s"_s;
        QTest::newRow("under a minute") << 60 * Second - 1 << u"59 s"_s;
        QTest::newRow("minute") << 60 * Second << u"1 min"_s;
        QTest::newRow("under an hour") << 3600 * Second - 1 << u"59 min"_s;
        QTest::newRow("hour") << 3600 * Second << u"1 h"_s;
        QTest::newRow("under a day") << 86400 * Second - 1 << u"23 h"_s;
        QTest::newRow("day") << 86400 * Second << u"1 d"_s;
        QTest::newRow("years") << 1000 * 86400 * Second << u"1000 d"_s;
    }
    void agesAreInWholeUnits()
    {
        QFETCH(qint64, milliseconds);
        QTEST(ageText(milliseconds), "text");
    }
};

QTEST_APPLESS_MAIN(TestColumns)
#include "tst_columns.moc"
