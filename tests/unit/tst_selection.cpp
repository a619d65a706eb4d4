// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/selection.h"

#include "tests/support/radionotice.h"

#include <QRandomGenerator>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

using namespace WatchTool;

class TestSelection : public QObject
{
    Q_OBJECT

    std::unique_ptr<RadioTable> table;
    std::unique_ptr<Selection> selection;

    static QList<int> serials(const Selection &shown)
    {
        QList<int> list;
        for (size_t i = 0; i < shown.size(); ++i) {
            list.append(shown.radio(i).notice.esn.bytes.back());
        }
        return list;
    }
    QList<int> shown()
    {
        selection->update();
        return serials(*selection);
    }
    void apply(quint8 serial, quint8 availability = QMR::Registered)
    {
        table->apply(radioNotice(serial, availability), 0);
    }
    void applyAt(quint8 serial, quint32 address)
    {
        QMR::Qmra::RadioNotice notice = radioNotice(serial);
        notice.address = address;
        table->apply(notice, 0);
    }

private slots:
    void init()
    {
        table = std::make_unique<RadioTable>();
        selection = std::make_unique<Selection>(*table);
        table->onTouched = [this](const QMR::Esn &esn) { selection->touch(esn); };
    }

    void allAreInEsnOrderAtFirst()
    {
        for (const quint8 serial : std::initializer_list<quint8>{200, 1, 100}) {
            apply(serial);
        }
        QCOMPARE(shown(), (QList<int>{1, 100, 200}));
        QCOMPARE(serials(Selection(*table)), (QList<int>{1, 100, 200}));
    }

    void newestChangeIsFirst()
    {
        selection->setOrder(Order::Change);
        table->beginSnapshot();
        apply(1);
        apply(2);
        table->endSnapshot();
        table->dropUntold();
        apply(9);
        apply(3);
        QCOMPARE(shown(), (QList<int>{3, 9, 1, 2}));
        apply(2);
        QCOMPARE(shown(), (QList<int>{2, 3, 9, 1}));
    }

    void addressesAreInTheirOrderAndNoneIsLast()
    {
        selection->setOrder(Order::Address);
        applyAt(1, 0x0A000002);
        applyAt(2, 0xFFFFFFFF);
        applyAt(3, 0);
        applyAt(4, 0x0A000001);
        applyAt(5, 0x0A000001);
        QCOMPARE(shown(), (QList<int>{4, 5, 1, 2, 3}));
    }

    void worstStateIsFirst()
    {
        selection->setOrder(Order::State);
        apply(1, 77);
        apply(2);
        table->apply(radioNotice(3, QMR::Registered, true), 0);
        apply(4, QMR::Unconfirmed);
        apply(5, QMR::Unreachable);
        apply(6);
        apply(0, QMR::Deregistered);
        QCOMPARE(shown(), (QList<int>{5, 4, 3, 2, 6, 1, 0}));
    }

    void orderIsTakenAtOnce()
    {
        apply(1);
        apply(2);
        selection->setOrder(Order::Change);
        QCOMPARE(serials(*selection), (QList<int>{2, 1}));
        QCOMPARE(selection->order(), Order::Change);
        selection->setOrder(Order::Esn);
        QCOMPARE(serials(*selection), (QList<int>{1, 2}));
    }

    void searchIsTakenAtOnceAndByWhatComes()
    {
        apply(0x10);
        apply(0x21);
        selection->setSearch(u"331"_s);
        QCOMPARE(serials(*selection), (QList<int>{0x10}));
        apply(0x11);
        apply(0x22);
        QCOMPARE(shown(), (QList<int>{0x10, 0x11}));
        selection->setSearch(QString());
        QCOMPARE(serials(*selection), (QList<int>{0x10, 0x11, 0x21, 0x22}));
    }

    void statesAreToggled()
    {
        apply(1);
        apply(2, QMR::Unconfirmed);
        apply(3, QMR::Unreachable);
        selection->toggle(RadioState::Unreachable);
        QVERIFY(selection->isToggled(RadioState::Unreachable));
        QCOMPARE(serials(*selection), (QList<int>{3}));
        selection->toggle(RadioState::Registered);
        QCOMPARE(serials(*selection), (QList<int>{1, 3}));
        apply(1, QMR::Unconfirmed); // leaves them
        apply(2);                   // comes among them
        QCOMPARE(shown(), (QList<int>{2, 3}));
        selection->toggle(RadioState::Unreachable);
        QCOMPARE(serials(*selection), (QList<int>{2}));
        selection->toggle(RadioState::Registered);
        QCOMPARE(serials(*selection), (QList<int>{1, 2, 3}));
        selection->toggle(RadioState::Pending);
        QCOMPARE(serials(*selection), QList<int>());
        selection->showAllStates();
        QVERIFY(!selection->isToggled(RadioState::Pending));
        QCOMPARE(serials(*selection), (QList<int>{1, 2, 3}));
    }

    void radioThatLeavesLeavesTheSelection()
    {
        apply(1);
        apply(2);
        apply(1, QMR::Deregistered);
        QCOMPARE(shown(), (QList<int>{1, 2}));
        apply(3);
        QCOMPARE(shown(), (QList<int>{2, 3}));
    }

    void placesAreFound()
    {
        for (const quint8 serial : std::initializer_list<quint8>{10, 20, 30}) {
            apply(serial);
        }
        QCOMPARE(shown().size(), 3);
        const Selection::Place place = selection->place(1);
        QCOMPARE(selection->indexFrom(place), size_t{1});
        QCOMPARE(selection->indexOf(*table->find(radioNotice(30).esn)).value(), size_t{2});
        apply(20, QMR::Deregistered);
        apply(15);
        QCOMPARE(shown(), (QList<int>{10, 15, 30}));
        QCOMPARE(selection->indexFrom(place), size_t{2});
        selection->setSearch(u"nothing"_s);
        QCOMPARE(selection->indexFrom(place), size_t{0});
        QVERIFY(!selection->indexOf(*table->find(radioNotice(30).esn)).has_value());
        selection->setSearch(u"0011AABB22CC331E"_s);
        QVERIFY(!selection->indexOf(*table->find(radioNotice(10).esn)).has_value());
        selection->setSearch(u"0011AABB22CC330A"_s);
        QVERIFY(!selection->indexOf(*table->find(radioNotice(30).esn)).has_value());
    }

    // Whatever happens, in whatever order: what has been put in its place is where a full sort puts it.
    void updatesAgreeWithAFullSort_data()
    {
        QTest::addColumn<Order>("order");
        QTest::newRow("ESN") << Order::Esn;
        QTest::newRow("change") << Order::Change;
        QTest::newRow("address") << Order::Address;
        QTest::newRow("state") << Order::State;
    }
    void updatesAgreeWithAFullSort()
    {
        QFETCH(Order, order);
        QRandomGenerator random(4711);
        selection->setOrder(order);
        selection->setSearch(u"0011AABB22CC33"_s);
        selection->toggle(RadioState::Registered);
        selection->toggle(RadioState::Unreachable);
        for (int round = 0; round < 300; ++round) {
            if (round % 50 == 7) {
                table->beginSnapshot();
            } else if (round % 50 == 30) {
                table->endSnapshot();
                table->dropUntold();
            }
            for (quint32 changes = random.bounded(40U); changes > 0; --changes) {
                QMR::Qmra::RadioNotice notice = radioNotice(static_cast<quint8>(random.bounded(100)),
                                                            static_cast<quint8>(random.bounded(4)));
                notice.address = random.bounded(16U);
                table->apply(notice, round);
            }
            Selection sorted(*table);
            sorted.toggle(RadioState::Registered);
            sorted.toggle(RadioState::Unreachable);
            sorted.setOrder(order);
            QCOMPARE(shown(), serials(sorted));
        }
    }
};

QTEST_APPLESS_MAIN(TestSelection)
#include "tst_selection.moc"
