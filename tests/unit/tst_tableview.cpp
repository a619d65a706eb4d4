// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/tableview.h"

#include "tests/support/radionotice.h"

#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

using namespace WatchTool;

namespace {

constexpr int Around = 4; // lines that are no radios: status, counts, heading, foot

} // namespace

// A table of 20 radios in a window that has room for 8 of them.
class TestTableView : public QObject
{
    Q_OBJECT

    std::unique_ptr<RadioTable> table;
    std::unique_ptr<TableView> view;
    TableView::Frame frame;

    void apply(quint8 serial, quint8 availability = QMR::Registered)
    {
        table->apply(radioNotice(serial, availability), frame.now);
    }
    void press(Key::Code code) { QVERIFY(view->press({code})); }
    void type(const QString &text)
    {
        for (const QChar character : text) {
            QVERIFY(view->press({Key::Code::Character, character}));
        }
    }
    QStringList lines() { return view->lines(frame); }
    QString foot() { return lines().last(); }
    // The serials of the radios in view.
    QList<int> shown()
    {
        QList<int> list;
        const QStringList all = lines();
        for (const QString &line : all.mid(3, all.size() - 4)) {
            if (!line.isEmpty()) {
                list.append(line.mid(16, 2).toInt(nullptr, 16));
            }
        }
        return list;
    }
    static QList<int> range(int first, int last)
    {
        QList<int> list;
        for (int serial = first; serial <= last; ++serial) {
            list.append(serial);
        }
        return list;
    }

private slots:
    void init()
    {
        frame = {80, 8 + Around, false, true, 0, u"20 radios, connected"_s};
        table = std::make_unique<RadioTable>();
        view = std::make_unique<TableView>(*table);
        table->onTouched = [this](const QMR::Esn &esn) { view->touch(esn); };
        table->beginSnapshot();
        for (quint8 serial = 1; serial <= 20; ++serial) {
            apply(serial);
        }
        table->endSnapshot();
        table->dropUntold();
    }

    void showsStatusCountsHeadingRadiosAndPlace()
    {
        apply(3, QMR::Unreachable);
        const QStringList all = lines();
        QCOMPARE(all.size(), 12);
        QCOMPARE(all[0], u"20 radios, connected"_s);
        QCOMPARE(all[1], u"unreachable 1, registered 19"_s);
        QCOMPARE(all[2],
                 u"  ESN              WACN/SYSTEM/UNIT  ADDRESS         STATE       CHANGED SERVIC~"_s);
        QCOMPARE(all[3], u"  0011AABB22CC3301 01234/567/89AB01  10.0.0.1        registered  -       1,3"_s);
        QCOMPARE(all[5], u"> 0011AABB22CC3303 01234/567/89AB03  10.0.0.3        unreachable 0 s     1,3"_s);
        QCOMPARE(all[11], u"1-8 of 20, by ESN  ?: keys, q: quit"_s);
    }

    void countsHaveAllStatesThatOccur()
    {
        apply(1, QMR::Unreachable);
        apply(2, QMR::Unconfirmed);
        table->apply(radioNotice(3, QMR::Registered, true), 0);
        apply(4, 77);
        apply(5, QMR::Deregistered);
        QCOMPARE(lines().at(1), u"unreachable 1, unconfirmed 1, pending 1, registered 15, other 1"_s);
    }

    void agesGoOn()
    {
        frame.now = 1000;
        apply(2);
        frame.now = 8000;
        QVERIFY(lines().at(4).contains(u" 7 s "_s));
    }

    void coloursAreForWhoWantsThem()
    {
        QVERIFY(!lines().join(u' ').contains(u'\033'));
        frame.coloured = true;
        QCOMPARE(lines().join(u' ').count(u"\033[32m"_s), 8);
    }

    void keysAreNamedForWhoHasThem()
    {
        frame.hasKeys = false;
        QCOMPARE(foot(), u"1-8 of 20, by ESN"_s);
    }

    void shortTableHasItsFootInTheLastLine()
    {
        frame.rows = 40;
        const QStringList all = lines();
        QCOMPARE(all.size(), 40);
        QVERIFY(all[22].contains(u"0011AABB22CC3314"_s));
        QCOMPARE(all[23], QString());
        QVERIFY(all[39].startsWith(u"1-20 of 20"_s));
    }

    void emptyTableSaysSo()
    {
        RadioTable none;
        TableView empty(none);
        const QStringList all = empty.lines(frame);
        QCOMPARE(all.size(), 12);
        QCOMPARE(all[1], QString());
        QVERIFY(all[11].startsWith(u"none, by ESN"_s));
        for (const auto code : {Key::Code::Down, Key::Code::End, Key::Code::PageUp, Key::Code::Up}) {
            QVERIFY(empty.press({code}));
            QCOMPARE(empty.lines(frame), all);
        }
    }

    void everyWindowIsFilledAndNothingIsWider()
    {
        apply(3, QMR::Unreachable);
        for (const bool isHelp : {false, true}) {
            for (int columns = 1; columns <= 90; ++columns) {
                for (int rows = 1; rows <= 30; ++rows) {
                    frame.columns = columns;
                    frame.rows = rows;
                    const QStringList all = lines();
                    QVERIFY(isHelp ? all.size() <= rows : all.size() == rows);
                    for (const QString &line : all) {
                        QVERIFY2(line.size() <= columns, qPrintable(line));
                    }
                    QCOMPARE(all[0], frame.status.left(columns));
                }
            }
            type(u"?"_s);
        }
    }

    void lowWindowKeepsStatusRadiosAndFoot()
    {
        const auto texts = [this](int rows) {
            frame.rows = rows;
            QString kinds;
            for (const QString &line : lines()) {
                kinds += line.contains(u"connected"_s)    ? u'S'
                         : line.contains(u"STATE"_s)      ? u'H'
                         : line.contains(u" of 20"_s)     ? u'F'
                         : line.contains(u"0011AABB22"_s) ? u'R'
                                                          : u'C';
            }
            return kinds;
        };
        QCOMPARE(texts(6), u"SCHRRF"_s);
        QCOMPARE(texts(5), u"SCHRF"_s);
        QCOMPARE(texts(4), u"SHRF"_s);
        QCOMPARE(texts(3), u"SRF"_s);
        QCOMPARE(texts(2), u"SR"_s);
        QCOMPARE(texts(1), u"S"_s);
    }

    void scrolls_data()
    {
        using enum Key::Code;
        QTest::addColumn<QList<Key::Code>>("keys");
        QTest::addColumn<int>("first");
        QTest::newRow("none") << QList<Key::Code>{} << 1;
        QTest::newRow("down") << QList{Down} << 2;
        QTest::newRow("down twice, up") << QList{Down, Down, Up} << 2;
        QTest::newRow("up at the top") << QList{Up} << 1;
        QTest::newRow("page down") << QList{PageDown} << 9;
        QTest::newRow("page down to the end") << QList{PageDown, PageDown} << 13;
        QTest::newRow("page down beyond the end, up") << QList{PageDown, PageDown, PageDown, Up} << 12;
        QTest::newRow("down beyond the end, up") << QList{End, Down, Down, Up} << 12;
        QTest::newRow("page up") << QList{End, PageUp} << 5;
        QTest::newRow("page up to the top") << QList{PageDown, Up, PageUp} << 1;
        QTest::newRow("end") << QList{End} << 13;
        QTest::newRow("home") << QList{End, Home} << 1;
        QTest::newRow("keys without a meaning") << QList{Down, Enter, Backspace} << 2;
    }
    void scrolls()
    {
        QFETCH(QList<Key::Code>, keys);
        QFETCH(int, first);
        QCOMPARE(shown(), range(1, 8));
        for (const Key::Code code : keys) {
            press(code);
        }
        QCOMPARE(shown(), range(first, first + 7));
        QVERIFY(foot().startsWith(u"%1-%2 of 20,"_s.arg(first).arg(first + 7)));
    }

    void largerWindowShowsMoreAtTheEnd()
    {
        lines();
        press(Key::Code::End);
        frame.rows = 16 + Around;
        QCOMPARE(shown(), range(5, 20));
    }

    void whatIsInViewStaysThere()
    {
        lines();
        press(Key::Code::PageDown);
        QCOMPARE(shown(), range(9, 16));
        apply(0);
        QCOMPARE(shown(), range(9, 16));
        apply(1, QMR::Deregistered);
        apply(0);
        QCOMPARE(shown(), range(9, 16));
        apply(9, QMR::Deregistered);
        apply(0);
        QCOMPARE(shown(), range(10, 17));
    }

    void whoIsAtTheTopSeesWhatComes()
    {
        QCOMPARE(shown(), range(1, 8));
        apply(0);
        QCOMPARE(shown(), range(0, 7));
        type(u"c"_s);
        apply(15);
        QCOMPARE(shown().first(), 15);
    }

    void sorts_data()
    {
        QTest::addColumn<QString>("keys");
        QTest::addColumn<QList<int>>("first");
        QTest::addColumn<QString>("name");
        QTest::newRow("ESN") << u"ce"_s << QList{1, 2, 3} << u"by ESN"_s;
        QTest::newRow("change") << u"c"_s << QList{5, 7, 1} << u"by last change"_s;
        QTest::newRow("address") << u"a"_s << QList{7, 1, 2} << u"by address"_s;
        QTest::newRow("state") << u"s"_s << QList{5, 1, 2} << u"by state"_s;
    }
    void sorts()
    {
        QFETCH(QString, keys);
        QFETCH(QList<int>, first);
        QFETCH(QString, name);
        QMR::Qmra::RadioNotice moved = radioNotice(7);
        moved.address = 1;
        table->apply(moved, 0);
        apply(5, QMR::Unreachable);
        lines();
        press(Key::Code::End);
        type(keys);
        QCOMPARE(shown().first(3), first);
        QVERIFY(foot().startsWith(u"1-8 of 20, "_s + name + u"  "));
    }

    void searchIsSeenWhileItIsTyped()
    {
        lines();
        press(Key::Code::End);
        type(u"/"_s);
        QVERIFY(foot().startsWith(u"/_ "_s));
        QCOMPARE(shown(), range(1, 8));
        type(u"10.0.0.1"_s);
        QVERIFY(foot().startsWith(u"/10.0.0.1_ "_s));
        QCOMPARE(shown(), (QList<int>{1, 10, 11, 12, 13, 14, 15, 16}));
        type(u"5"_s);
        QCOMPARE(shown(), QList<int>{15});
        press(Key::Code::Backspace);
        press(Key::Code::PageDown);
        QCOMPARE(shown(), (QList<int>{12, 13, 14, 15, 16, 17, 18, 19}));
    }

    void searchIsKept()
    {
        type(u"/01234/567/89ab0"_s);
        press(Key::Code::Enter);
        QCOMPARE(foot(), u"1-8 of 15, /01234/567/89ab0, by ESN  ?: keys, q: quit"_s);
        apply(0x0B, QMR::Unconfirmed);
        apply(0x20);
        QCOMPARE(shown(), range(1, 8));
        press(Key::Code::End);
        QCOMPARE(shown(), range(8, 15));
        type(u"c"_s); // no longer typed
        QCOMPARE(shown().first(), 11);
    }

    void escapeClearsTheSearch()
    {
        type(u"/10.0.0.15"_s);
        press(Key::Code::Escape);
        QCOMPARE(shown(), range(1, 8));
        QCOMPARE(foot(), u"1-8 of 20, by ESN  ?: keys, q: quit"_s);
        type(u"/10.0.0.15"_s);
        press(Key::Code::Enter);
        QCOMPARE(shown(), QList<int>{15});
        press(Key::Code::Escape);
        QCOMPARE(shown(), range(1, 8));
    }

    void searchBeginsAnew()
    {
        type(u"/10.0.0.15"_s);
        press(Key::Code::Enter);
        type(u"/331"_s);
        QVERIFY(foot().startsWith(u"/331_"_s));
        QCOMPARE(shown(), range(16, 20));
        for (int i = 0; i < 5; ++i) {
            press(Key::Code::Backspace);
        }
        QVERIFY(foot().startsWith(u"/_"_s));
    }

    void searchHasABound()
    {
        type(u'/' + QString(100, u'1'));
        QVERIFY(foot().startsWith(u'/' + QString(30, u'1') + u'_'));
        QCOMPARE(shown(), QList<int>());
    }

    void searchThatFindsNothingSaysSo()
    {
        type(u"/xyz"_s);
        press(Key::Code::Enter);
        QVERIFY(foot().startsWith(u"none, /xyz, by ESN"_s));
    }

    void statesAreChosen_data()
    {
        QTest::addColumn<QString>("keys");
        QTest::addColumn<QList<int>>("serials");
        QTest::addColumn<QString>("counts");
        const QString none = u"unreachable 1, unconfirmed 1, pending 1, registered 16, other 1"_s;
        QTest::newRow("unreachable") << u"1"_s << QList{1}
                                     << QString(none).replace(u"unreachable 1"_s, u"[unreachable 1]"_s);
        QTest::newRow("unconfirmed") << u"2"_s << QList{2}
                                     << QString(none).replace(u"unconfirmed 1"_s, u"[unconfirmed 1]"_s);
        QTest::newRow("pending") << u"3"_s << QList{3}
                                 << QString(none).replace(u"pending 1"_s, u"[pending 1]"_s);
        QTest::newRow("registered") << u"4"_s << range(5, 12)
                                    << QString(none).replace(u"registered 16"_s, u"[registered 16]"_s);
        QTest::newRow("other") << u"5"_s << QList{4} << QString(none).replace(u"other 1"_s, u"[other 1]"_s);
        QTest::newRow("no state") << u"6"_s << range(1, 8) << none;
        QTest::newRow("two") << u"15"_s << QList{1, 4}
                             << u"[unreachable 1], unconfirmed 1, pending 1, registered 16, [other 1]"_s;
        QTest::newRow("one no longer")
            << u"151"_s << QList{4} << QString(none).replace(u"other 1"_s, u"[other 1]"_s);
        QTest::newRow("again") << u"11"_s << range(1, 8) << none;
        QTest::newRow("all") << u"1250"_s << range(1, 8) << none;
    }
    void statesAreChosen()
    {
        QFETCH(QString, keys);
        QFETCH(QList<int>, serials);
        QFETCH(QString, counts);
        apply(1, QMR::Unreachable);
        apply(2, QMR::Unconfirmed);
        table->apply(radioNotice(3, QMR::Registered, true), 0);
        apply(4, 77);
        lines();
        press(Key::Code::End);
        type(keys);
        QCOMPARE(lines().at(1), counts);
        if (keys == u"6") {
            press(Key::Code::Home); // nothing has been chosen
        }
        QCOMPARE(shown(), serials);
    }

    void allStatesAreShownFromTheTop()
    {
        apply(1, QMR::Unreachable);
        type(u"4"_s);
        lines();
        press(Key::Code::End);
        QCOMPARE(shown(), range(13, 20));
        type(u"0"_s);
        QCOMPARE(shown(), range(1, 8));
    }

    void chosenStateIsNamedWhereNoRadioHasIt()
    {
        type(u"1"_s);
        QCOMPARE(lines().at(1), u"[unreachable 0], registered 20"_s);
    }

    void followsTheLastChange()
    {
        type(u"f"_s);
        QVERIFY(foot().startsWith(u"1-8 of 20, by ESN, following  "_s)); // nothing has changed yet
        apply(18);
        QCOMPARE(shown(), range(13, 20));
        apply(15); // is in view
        QCOMPARE(shown(), range(13, 20));
        apply(10);
        QCOMPARE(shown(), range(6, 13));
        apply(1);
        QCOMPARE(shown(), range(1, 8));
        apply(9);
        QCOMPARE(shown(), range(5, 12));
        type(u"f"_s);
        apply(20);
        QCOMPARE(shown(), range(5, 12));
        QVERIFY(!foot().contains(u"following"_s));
    }

    void scrollingEndsFollowing()
    {
        type(u"f"_s);
        apply(18);
        lines();
        press(Key::Code::Up);
        QCOMPARE(shown(), range(12, 19));
        QVERIFY(!foot().contains(u"following"_s));
        apply(1);
        QCOMPARE(shown(), range(12, 19));
    }

    void doesNotFollowWhatIsNotAskedFor()
    {
        type(u"/331"_s);
        press(Key::Code::Enter);
        type(u"f"_s);
        apply(1);
        QCOMPARE(shown(), range(16, 20));
    }

    void helpNamesTheKeysAndKeepsTheStatusInView()
    {
        frame.rows = 24;
        type(u"?"_s);
        const QStringList all = lines();
        QCOMPARE(all[0], frame.status);
        const QString text = all.join(u'\n');
        for (const QChar key : u"/ecas123450fq?"_s) {
            QVERIFY2(text.contains(u'\n' + QString(key) + u"  "), qPrintable(QString(key)));
        }
        apply(1, QMR::Unreachable);
        QCOMPARE(lines().at(1), u"unreachable 1, registered 19"_s);
        type(u"/"_s); // any key goes back, and does nothing else
        QVERIFY(foot().startsWith(u"1-20 of 20, by ESN  "_s));
    }

    void leavesAtQ()
    {
        QVERIFY(!view->press({Key::Code::Character, u'q'}));
        type(u"?"_s);
        QVERIFY(!view->press({Key::Code::Character, u'q'}));
        type(u"/q"_s); // is typed
        QVERIFY(foot().startsWith(u"/q_"_s));
        press(Key::Code::Enter);
        QVERIFY(!view->press({Key::Code::Character, u'q'}));
    }

    void otherKeysDoNothing()
    {
        const QStringList before = lines();
        type(u"QxyzECAS[~ "_s);
        QCOMPARE(lines(), before);
    }
};

QTEST_APPLESS_MAIN(TestTableView)
#include "tst_tableview.moc"
