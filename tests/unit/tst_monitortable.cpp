// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radionotice.h"
#include "tools/monitor/table.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace Monitor;

class TestMonitorTable : public QObject
{
    Q_OBJECT

    static QMR::Esn esn(quint32 number)
    {
        return {{0, 0, 0, 0, 0, static_cast<quint8>(number >> 16), static_cast<quint8>(number >> 8),
                 static_cast<quint8>(number)}};
    }
    const Radio &radio(int serial, int server = 0) const
    {
        return table->radiosOf(server).at(radioNotice(serial).esn);
    }
    const Server &server(int index = 0) const { return table->servers()[static_cast<size_t>(index)]; }
    qint64 inState(int kind, int index = 0) const { return server(index).byState[static_cast<size_t>(kind)]; }

    std::unique_ptr<Table> table;

private slots:
    void init()
    {
        table = std::make_unique<Table>(QStringList{u"a:1"_s, u"b:2"_s});
        table->connected(0, 1000);
    }

    void countsRadiosByStateAndByService()
    {
        table->noticed(0, radioNotice(1), false, 2000);
        table->noticed(0, radioNotice(2, QMR::Unconfirmed), false, 2000);
        table->noticed(0, radioNotice(3, QMR::Registered, true), false, 2000);
        auto twice = radioNotice(4, QMR::Unreachable);
        twice.services = {2, 2, 200};
        table->noticed(0, twice, false, 2000);
        QCOMPARE(server().radios, 4);
        QCOMPARE(table->size(), 4);
        QCOMPARE(inState(QMR::Registered), 1);
        QCOMPARE(inState(QMR::Unconfirmed), 1);
        QCOMPARE(inState(QMR::Unreachable), 1);
        QCOMPARE(inState(RadioState::PendingState), 1);
        QCOMPARE(server().byService[1], 3);
        QCOMPARE(server().byService[2], 1); // a radio that names it twice is one radio
        QCOMPARE(server().byService[200], 1);

        table->noticed(0, radioNotice(4), false, 3000);
        table->noticed(0, radioNotice(1, QMR::Deregistered), false, 3000);
        QCOMPARE(server().radios, 3);
        QCOMPARE(inState(QMR::Registered), 1);
        QCOMPARE(inState(QMR::Unreachable), 0);
        QCOMPARE(inState(QMR::Deregistered), 0);
        QCOMPARE(server().byService[1], 3);
        QCOMPARE(server().byService[2], 0);
    }
    void pendingRegistrationThatIsGoneByItsBytesIsNotGone()
    {
        table->noticed(0, radioNotice(1, QMR::Deregistered, true), false, 2000);
        QCOMPARE(table->size(), 1);
        QCOMPARE(inState(RadioState::PendingState), 1);
    }
    void serversHaveTablesOfTheirOwn()
    {
        table->connected(1, 1000);
        table->noticed(0, radioNotice(1), false, 2000);
        table->noticed(1, radioNotice(1, QMR::Unconfirmed), false, 2000);
        QCOMPARE(table->size(), 2);
        QCOMPARE(inState(QMR::Registered, 0), 1);
        QCOMPARE(inState(QMR::Unconfirmed, 1), 1);
        QCOMPARE(radio(1, 1).server, 1);
    }

    void countsNoticesOutsideOfSnapshotsByState()
    {
        table->noticed(0, radioNotice(1), true, 2000);
        QCOMPARE(server().notices[QMR::Registered], quint64{0});
        QCOMPARE(server().changed, 0);
        table->noticed(0, radioNotice(1), false, 3000);
        table->noticed(0, radioNotice(1, QMR::Registered, true), false, 4000);
        table->noticed(0, radioNotice(1, QMR::Deregistered), false, 5000);
        QCOMPARE(server().notices[QMR::Registered], quint64{1});
        QCOMPARE(server().notices[RadioState::PendingState], quint64{1});
        QCOMPARE(server().notices[QMR::Deregistered], quint64{1});
        QCOMPARE(server().changed, 5000);
    }

    void historyBeginsWithWhatWasFirstKnown()
    {
        table->noticed(0, radioNotice(1), true, 2000);
        QVERIFY(!radio(1).changed);
        table->noticed(0, radioNotice(1, QMR::Unconfirmed), false, 3000);
        QVERIFY(radio(1).changed);
        table->noticed(0, radioNotice(2), false, 4000); // not of a snapshot: it is new
        QVERIFY(radio(2).changed);

        QCOMPARE(radio(1).states.size(), size_t{2});
        QCOMPARE(radio(1).states[0].time, 2000);
        QCOMPARE(radio(1).states[0].availability, QMR::Registered);
        QCOMPARE(radio(1).now().time, 3000);
        QCOMPARE(radio(1).now().availability, QMR::Unconfirmed);
        QCOMPARE(radio(1).now().address, 0x0A000001U);
        QCOMPARE(radio(1).now().services, "\1\3"_ba);
        QCOMPARE(radio(1).now().suid, radioNotice(1).suid);
        QCOMPARE(radio(1).states[0].services.constData(), radio(1).now().services.constData()); // one copy
    }
    void whatSaysTheSameIsNoChange()
    {
        table->noticed(0, radioNotice(1), false, 2000);
        table->noticed(0, radioNotice(1), false, 3000);
        QCOMPARE(radio(1).states.size(), size_t{1});
        QCOMPARE(table->lastOrder(), quint64{1});
    }
    void eachFieldIsAChange_data()
    {
        QTest::addColumn<int>("field");
        for (int field = 0; field < 5; ++field) {
            QTest::addRow("%d", field) << field;
        }
    }
    void eachFieldIsAChange()
    {
        QFETCH(int, field);
        auto notice = radioNotice(1);
        table->noticed(0, notice, false, 2000);
        switch (field) {
        case 0:
            notice.suid.bytes[6] = 9;
            break;
        case 1:
            notice.pending = true;
            break;
        case 2:
            notice.address = 7;
            break;
        case 3:
            notice.availability = QMR::Unreachable;
            break;
        default:
            notice.services = {3, 1};
            break;
        }
        table->noticed(0, notice, false, 3000);
        QCOMPARE(radio(1).states.size(), size_t{2});
    }
    void historyIsBounded()
    {
        for (int i = 0; i < 40; ++i) {
            table->noticed(0, radioNotice(1, i % 2 == 0 ? QMR::Registered : QMR::Unconfirmed), false, i);
        }
        QCOMPARE(radio(1).states.size(), Radio::LongestHistory);
        QCOMPARE(radio(1).states.front().time, 24);
        QCOMPARE(radio(1).now().time, 39);
    }

    void radiosComeInTheOrderOfTheirLastChanges()
    {
        for (const int serial : {1, 2, 3}) {
            table->noticed(0, radioNotice(serial), true, 2000);
        }
        table->noticed(0, radioNotice(1, QMR::Unconfirmed), false, 3000);
        QList<int> serials;
        QList<quint64> orders;
        for (const Radio *radio = table->changedAfter(0); radio; radio = table->changedAfter(radio->order)) {
            serials.append(radio->esn.bytes.back());
            orders.append(radio->order);
        }
        QCOMPARE(serials, (QList<int>{2, 3, 1}));
        QCOMPARE(orders, (QList<quint64>{2, 3, 4}));
        QCOMPARE(table->lastOrder(), quint64{4});
    }

    void whatANewSnapshotLacksIsGoneAtItsEnd()
    {
        for (const int serial : {1, 2, 3}) {
            table->noticed(0, radioNotice(serial), true, 2000);
        }
        table->snapshotEnded(0, 3);
        table->dropUntold(0, 2500);
        QCOMPARE(table->size(), 3);
        table->disconnected(0, u"away"_s, 3000);
        QCOMPARE(table->size(), 3);
        table->connected(0, 4000);
        table->noticed(0, radioNotice(1), true, 4000);
        table->noticed(0, radioNotice(3, QMR::Unconfirmed), true, 4000);
        QCOMPARE(table->size(), 3);
        table->snapshotEnded(0, 2);
        table->dropUntold(0, 5000);
        QCOMPARE(server().snapshot, 2);
        QCOMPARE(table->size(), 2);
        QVERIFY(radio(2).now().isGone());
        QVERIFY(radio(2).changed);
        QCOMPARE(radio(2).now().time, 5000);
        QCOMPARE(radio(2).now().suid, radioNotice(2).suid);
        QCOMPARE(radio(1).states.size(), size_t{1});
        QCOMPARE(radio(3).states.size(), size_t{2});
        QCOMPARE(server().notices[QMR::Deregistered], quint64{0}); // nobody has told so
        const quint64 order = table->lastOrder();
        table->connected(0, 6000);
        table->snapshotEnded(0, 0);
        table->dropUntold(0, 7000);
        QCOMPARE(table->lastOrder(), order + 2); // what is gone already does not go again
    }
    void radiosOfAnotherServerStay()
    {
        table->connected(1, 1000);
        table->noticed(1, radioNotice(1), true, 2000);
        table->connected(0, 3000);
        table->snapshotEnded(0, 0);
        table->dropUntold(0, 4000);
        QCOMPARE(table->size(), 1);
    }

    void connectionsAndLossesAreNoted()
    {
        QCOMPARE(server(1).since, 0);
        table->disconnected(1, u"refused"_s, 1500); // there was no connection to lose
        QCOMPARE(server(1).since, 0);
        QCOMPARE(server(1).reason, u"refused"_s);
        QVERIFY(server().isConnected);
        QCOMPARE(server().since, 1000);
        table->disconnected(0, u"gone"_s, 2000);
        table->disconnected(0, u"refused"_s, 3000);
        QVERIFY(!server().isConnected);
        QCOMPARE(server().since, 2000);
        QCOMPARE(server().reason, u"refused"_s);
        table->connected(0, 4000);
        QCOMPARE(server().connections, 2);
        QCOMPARE(server().since, 4000);
        QVERIFY(server().reason.isEmpty());
        QCOMPARE(server().snapshot, -1);
    }

    void remembersABoundedNumberOfThoseThatAreGone()
    {
        const auto goes = [this](quint32 number) {
            auto notice = radioNotice(1, QMR::Deregistered);
            notice.esn = esn(number);
            table->noticed(0, notice, false, 2000);
        };
        for (quint32 number = 1; number <= Table::LongestMemory; ++number) {
            goes(number);
        }
        QCOMPARE(table->forgottenOrder(), quint64{0});
        auto back = radioNotice(1);
        back.esn = esn(1);
        table->noticed(0, back, false, 3000);
        goes(100001);
        QCOMPARE(table->radiosOf(0).size(), Table::LongestMemory + 1);
        goes(100002);
        QCOMPARE(table->forgottenOrder(), quint64{2}); // of the second: the first is back
        QVERIFY(table->radiosOf(0).contains(esn(1)));
        QVERIFY(!table->radiosOf(0).contains(esn(2)));
        QVERIFY(table->radiosOf(0).contains(esn(3)));
        QCOMPARE(table->changedAfter(0)->order, quint64{3});
    }
    void manyMayGoAtOnce()
    {
        for (quint32 number = 1; number <= Table::LongestMemory + 50; ++number) {
            auto notice = radioNotice(1);
            notice.esn = esn(number);
            table->noticed(0, notice, true, 2000);
        }
        table->connected(0, 3000);
        table->snapshotEnded(0, 0);
        table->dropUntold(0, 4000);
        QCOMPARE(table->size(), 0);
        QCOMPARE(table->radiosOf(0).size(), Table::LongestMemory);
        QVERIFY(!table->radiosOf(0).contains(esn(50)));
        QVERIFY(table->radiosOf(0).contains(esn(51)));
    }
};

QTEST_APPLESS_MAIN(TestMonitorTable)
#include "tst_monitortable.moc"
