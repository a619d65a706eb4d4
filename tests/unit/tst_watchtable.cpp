// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/radiotable.h"

#include "tests/support/radionotice.h"
#include "tools/watch/tableview.h"

#include <QTest>

using namespace Qt::StringLiterals;

using namespace WatchTool;

class TestWatchTable : public QObject
{
    Q_OBJECT

    RadioTable table;
    QList<int> touched; // serials

    void apply(const QMR::Qmra::RadioNotice &notice, qint64 now = 0) { table.apply(notice, now); }
    const TableRadio *find(quint8 serial) const { return table.find(radioNotice(serial).esn); }

private slots:
    void init()
    {
        table = RadioTable();
        touched.clear();
        table.onTouched = [this](const QMR::Esn &esn) { touched.append(esn.bytes.back()); };
    }

    void plainLinesAreInEsnOrderAndMarkTheLastChange()
    {
        apply(radioNotice(9));
        apply(radioNotice(1, QMR::Unconfirmed));
        QCOMPARE(plainLines(table),
                 (QStringList{u"  ESN              WACN/SYSTEM/UNIT  ADDRESS         STATE       SERVICES"_s,
                              u"> 0011AABB22CC3301 01234/567/89AB01  10.0.0.1        unconfirmed 1,3"_s,
                              u"  0011AABB22CC3309 01234/567/89AB09  10.0.0.9        registered  1,3"_s}));
    }

    void radioThatIsGoneIsShownOnceMore()
    {
        apply(radioNotice(1));
        apply(radioNotice(1, QMR::Deregistered));
        QCOMPARE(table.size(), size_t{0});
        QCOMPARE(plainLines(table).size(), 2);
        QVERIFY(plainLines(table).at(1).contains(u" -               gone "));
        touched.clear();
        apply(radioNotice(2));
        QCOMPARE(touched, (QList<int>{1, 2}));
        QCOMPARE(table.size(), size_t{1});
        QCOMPARE(plainLines(table).size(), 2);
        QCOMPARE(table.count(RadioState::Gone), size_t{0});
    }

    void pendingRegistrationOfARadioThatIsGoneStays()
    {
        apply(radioNotice(1, QMR::Deregistered, true));
        apply(radioNotice(2));
        QCOMPARE(table.size(), size_t{2});
    }

    void statesAreCounted()
    {
        const auto counts = [this] {
            QList<size_t> list;
            for (const auto state : {RadioState::Unreachable, RadioState::Unconfirmed, RadioState::Pending,
                                     RadioState::Registered, RadioState::Other, RadioState::Gone}) {
                list.append(table.count(state));
            }
            return list;
        };
        apply(radioNotice(1));
        apply(radioNotice(2, QMR::Unconfirmed));
        apply(radioNotice(3, QMR::Unreachable));
        apply(radioNotice(4, QMR::Registered, true));
        apply(radioNotice(5, 77));
        apply(radioNotice(6));
        QCOMPARE(counts(), (QList<size_t>{1, 1, 1, 2, 1, 0}));
        apply(radioNotice(1, QMR::Unreachable));
        QCOMPARE(counts(), (QList<size_t>{2, 1, 1, 1, 1, 0}));
        apply(radioNotice(6, QMR::Deregistered));
        QCOMPARE(counts(), (QList<size_t>{2, 1, 1, 0, 1, 1}));
        apply(radioNotice(6));
        QCOMPARE(counts(), (QList<size_t>{2, 1, 1, 1, 1, 0}));
        QCOMPARE(table.size(), size_t{6});
    }

    void changesAreNumberedAndHaveTheirTime()
    {
        apply(radioNotice(1), 1000);
        apply(radioNotice(2), 2000);
        QCOMPARE(find(1)->changed.value(), 1000);
        QCOMPARE(find(2)->changed.value(), 2000);
        QVERIFY(find(1)->change < find(2)->change);
        apply(radioNotice(1), 3000);
        QCOMPARE(find(1)->changed.value(), 3000);
        QVERIFY(find(1)->change > find(2)->change);
    }

    void whatIsToldAtFirstIsNoChange()
    {
        table.beginSnapshot();
        apply(radioNotice(1));
        apply(radioNotice(2));
        table.endSnapshot();
        table.dropUntold();
        QVERIFY(!find(1)->changed.has_value());
        QCOMPARE(find(1)->change, quint64{0});
        apply(radioNotice(1), 5000);
        QCOMPARE(find(1)->changed.value(), 5000);
        QVERIFY(!find(2)->changed.has_value());
    }

    void whatIsToldAnewHasChangedOnlyWhereItDiffers()
    {
        table.beginSnapshot();
        apply(radioNotice(1));
        apply(radioNotice(2));
        table.endSnapshot();
        table.dropUntold();
        apply(radioNotice(2, QMR::Unconfirmed), 1000);

        table.beginSnapshot();
        apply(radioNotice(1, QMR::Unconfirmed), 9000);
        apply(radioNotice(2, QMR::Unconfirmed), 9000);
        apply(radioNotice(3), 9000);
        QCOMPARE(find(1)->changed.value(), 9000);
        QCOMPARE(find(2)->changed.value(), 1000);
        QCOMPARE(find(3)->changed.value(), 9000);
    }

    void whatIsNotToldAnewHasLeft()
    {
        table.beginSnapshot();
        for (const quint8 serial : std::initializer_list<quint8>{1, 2, 3}) {
            apply(radioNotice(serial));
        }
        table.endSnapshot();
        table.dropUntold();
        QCOMPARE(table.size(), size_t{3});
        table.beginSnapshot(); // its connection ends before the snapshot does
        apply(radioNotice(3));
        QCOMPARE(table.size(), size_t{3});
        table.beginSnapshot();
        apply(radioNotice(2));
        touched.clear();
        table.endSnapshot();
        table.dropUntold();
        QCOMPARE(touched, (QList<int>{1, 3}));
        QCOMPARE(table.size(), size_t{1});
        QCOMPARE(table.count(RadioState::Registered), size_t{1});
        QVERIFY(find(2) != nullptr);
    }

    void whatChangesAfterASnapshotIsChangedByAnything()
    {
        table.beginSnapshot();
        apply(radioNotice(1));
        table.endSnapshot();
        table.dropUntold();
        apply(radioNotice(1), 4000); // a registration that is the same as before
        QCOMPARE(find(1)->changed.value(), 4000);
    }
};

QTEST_APPLESS_MAIN(TestWatchTable)
#include "tst_watchtable.moc"
