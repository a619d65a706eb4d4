// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/failingstatements.h"
#include "tests/support/otherconnection.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QTest>

#include <sqlite3.h>

using namespace Qt::StringLiterals;

namespace {

constexpr quint16 Port = 9; // nobody hears the acknowledgements

const QMR::Esn First{{0, 0, 0, 0, 0, 0, 0, 1}};
const QMR::Esn Second{{0, 0, 0, 0, 0, 0, 0, 2}};

// "01 state 3 at 2 [1]", row by row.
QStringList rows(const TestServer &server)
{
    QStringList texts;
    for (const QVariantList &row :
         server.query(u"SELECT hex(substr(esn, 8)), availability, ip_address & 255, (SELECT "
                      u"group_concat(service) FROM "
                      "supported_services WHERE subscriber_id = id) FROM subscribers ORDER BY esn"_s)) {
        texts.append(u"%1 state %2 at %3 [%4]"_s.arg(row[0].toString(), row[1].toString(), row[2].toString(),
                                                     row[3].toString()));
    }
    return texts;
}

void registers(TestServer &server, const QMR::Esn &esn, quint32 service, int address = 0)
{
    const int number = address ? address : esn.bytes[7] + 1;
    server->registerRadio(esn, 3, {}, QHostAddress(u"127.0.0.%1"_s.arg(number)), Port, false, {service});
}

// Somebody else has the file: "IMMEDIATE" keeps writers out, "EXCLUSIVE" readers too, "SHARED" commits alone.
class Lock
{
public:
    Lock(const TestServer &server, const QString &kind) : connection(server)
    {
        setBusyTimeout(0);
        const bool held = kind == u"SHARED"
                              ? connection.run(u"BEGIN"_s) && connection.run(u"SELECT count(*) FROM config"_s)
                              : connection.run(u"BEGIN "_s + kind);
        if (!held) {
            qFatal("cannot lock the database");
        }
    }

private:
    OtherConnection connection;
};

} // namespace

// Writes that fail for a cause that passes, and are made good without their radio's help.
class TestOwedWrites : public QObject
{
    Q_OBJECT

private slots:
    void lockCostsNoRadioItsRow_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("another reads") << u"SHARED"_s;
        QTest::newRow("another writes") << u"IMMEDIATE"_s;
        QTest::newRow("another commits") << u"EXCLUSIVE"_s;
    }

    void lockCostsNoRadioItsRow()
    {
        QFETCH(const QString, kind);
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        server.log.take();
        const QString insertError =
            kind == u"SHARED" ? u"Database insert error (3)"_s : u"Database insert error (1)"_s;
        {
            const Lock lock(server, kind);
            registers(server, First, 2);
            QCOMPARE(server.log.takeErrors(), QStringList{u"Database write error"_s});
            registers(server, Second, 1);
            QCOMPARE(server.log.takeErrors(), (QStringList{insertError, u"Database write error"_s}));
            server->deregisterRadio(First, QHostAddress(u"127.0.0.2"_s));
            QCOMPARE(server.log.takeErrors(), QStringList{u"Database delete error"_s});
        }
        QCOMPARE(rows(server), QStringList{u"01 state 3 at 2 [1]"_s});
        QTRY_COMPARE(rows(server), QStringList{u"02 state 3 at 3 [1]"_s});
        QCOMPARE(server.log.takeErrors(), QStringList());
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void retriesLeaveNoRecordsWhileTheLockLasts()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        const Lock lock(server, u"IMMEDIATE"_s);
        registers(server, First, 2);
        server.log.take();
        StatementTrace trace;
        QStringList statements;
        // The lock cannot be had: each round gives up with its first statement.
        QTRY_VERIFY((statements += trace.take()).count(u"BEGIN IMMEDIATE"_s) >= 2);
        QCOMPARE(statements.count(u"BEGIN IMMEDIATE"_s), statements.size());
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void owedInsertIsMadeGoodByTheRadiosNextWrite()
    {
        TestServer server;
        server.startWithoutDiscovery();
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            registers(server, First, 1);
        }
        server.log.take();
        server->setAvailability(server->findRadio(First), QMR::Unconfirmed);
        QCOMPARE(server.log.takeErrors(), QStringList());
        QCOMPARE(rows(server), QStringList{u"01 state 2 at 2 [1]"_s});
    }

    void owedDeletionDoesNotKeepTheRadioOut()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            server->deregisterRadio(First, QHostAddress(u"127.0.0.2"_s));
        }
        QCOMPARE(server.log.takeErrors(), QStringList{u"Database delete error"_s});
        registers(server, First, 2, 7);
        QCOMPARE(server.log.takeErrors(), QStringList());
        QCOMPARE(rows(server), QStringList{u"01 state 3 at 7 [2]"_s});
        QCOMPARE(server.query(u"SELECT count(*) FROM supported_services"_s), (QList<QVariantList>{{1LL}}));
    }

    // Its row could not be told from that of the radio before.
    void radioIsNotInsertedBesideTheRowThatCannotBeDeleted()
    {
        TestServer server;
        server.startWithoutDiscovery();
        const FailingStatements deletions(server, SQLITE_FULL);
        registers(server, First, 1);
        server.log.take();
        deletions.begin(u"DELETE"_s);
        server->deregisterRadio(First, QHostAddress(u"127.0.0.2"_s));
        QCOMPARE(server.log.takeErrors(), QStringList{u"Database delete error"_s});
        QMR::RadioEntry again;
        again.esn = First;
        server->insertSubscriber(again);
        QCOMPARE(server.log.takeErrors(), QStringList{u"Database insert error (1)"_s});
        // What was in the way passes: it was the deletion that failed, not an ESN that is there twice.
        QCOMPARE(server->writeGroup()->owed().of(First), QMR::OwedWrites::Debt::Unknown);
        registers(server, First, 2, 7);
        QCOMPARE(server.log.takeErrors(), QStringList{u"Database insert error (1)"_s});
        deletions.end();
        QTRY_VERIFY(server->writeGroup()->owed().isEmpty());
        QCOMPARE(rows(server), QStringList{u"01 state 3 at 7 [2]"_s});
        QCOMPARE(server.log.takeErrors(), QStringList());
    }

    void radioThatCameAndWentDuringTheLockIsNotStored()
    {
        TestServer server;
        server.startWithoutDiscovery();
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            registers(server, First, 1);
            server->deregisterRadio(First, QHostAddress(u"127.0.0.2"_s));
            registers(server, Second, 1);
        }
        QTRY_COMPARE(rows(server), QStringList{u"02 state 3 at 3 [1]"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void radioThatLeftAndCameBackDuringTheLockIsStoredAsItIs()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            server->deregisterRadio(First, QHostAddress(u"127.0.0.2"_s));
            registers(server, First, 3, 8);
        }
        server.log.take();
        QTRY_COMPARE(rows(server), QStringList{u"01 state 3 at 8 [3]"_s});
        QCOMPARE(server.log.takeErrors(), QStringList());
        server.restart();
        QCOMPARE(server->findRadio(First)->supportedServices, QMR::ServiceList{3});
    }

    void owedWritesAreTriedAtStop()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            registers(server, First, 2);
            registers(server, Second, 1);
        }
        server.log.take();
        server.stop();
        QCOMPARE(server.log.takeMessages(), QStringList{u"Service stopped"_s});
        QCOMPARE(rows(server), (QStringList{u"01 state 3 at 2 [2]"_s, u"02 state 3 at 3 [1]"_s}));
    }

    void rowThatSomebodyElseRemovedIsNotOwed()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        server.log.take();
        server.query(u"DELETE FROM subscribers"_s);
        server->setAvailability(server->findRadio(First), QMR::Unconfirmed);
        QCOMPARE(server.log.takeErrors(), QStringList{u"Database write error"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            server->setAvailability(server->findRadio(First), QMR::Registered);
        }
        QVERIFY(!server->writeGroup()->owed().isEmpty());
        server.log.take();
        QTRY_VERIFY(server->writeGroup()->owed().isEmpty());
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QCOMPARE(rows(server), QStringList());
    }

    void laterFailureInAGroupStaysOwed()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        registers(server, Second, 1);
        limitPages(server, 0);
        {
            const QMR::WriteTurn turn(server->writeGroup());
            server->setAvailability(server->findRadio(First), QMR::Unconfirmed);
            // More services than the pages that are left can hold.
            server->findRadio(First)->supportedServices = QMR::ServiceList(5000, 3);
            server->updateSubscriber(*server->findRadio(First));
        }
        QCOMPARE(server.log.takeErrors(), QStringList{u"Database write error"_s});
        QCOMPARE(server->writeGroup()->owed().of(First), QMR::OwedWrites::Debt::Change);
        limitPages(server, 1000000);
        QTRY_VERIFY(server->writeGroup()->owed().isEmpty());
        QCOMPARE(server.query(u"SELECT count(*) FROM supported_services WHERE service = 3"_s),
                 (QList<QVariantList>{{5000LL}}));
    }

    void fullDiskCostsNoRadioItsRow()
    {
        TestServer server;
        server.startWithoutDiscovery();
        limitPages(server, 0);
        constexpr int Count = 400;
        {
            const QMR::WriteTurn turn(server->writeGroup());
            for (int i = 0; i < Count; ++i) {
                registers(server, esnOf(i), 1, 2);
                server->setAddress(server->findRadio(esnOf(i)), QHostAddress(0x7F010000U + quint32(i)));
            }
        }
        const QStringList failed = server.log.takeErrors();
        QVERIFY(failed.size() > 1);
        QCOMPARE(failed.count(u"Database insert error (1)"_s) + failed.count(u"Database insert error (3)"_s) +
                     failed.count(u"Database write error"_s),
                 failed.size());
        QVERIFY(rows(server).size() < Count);
        limitPages(server, 1000000);
        QTRY_COMPARE(rows(server).size(), Count);
        QTRY_VERIFY(server->writeGroup()->owed().isEmpty());
        QCOMPARE(server.log.takeErrors(), QStringList());
        QCOMPARE(server.query(u"PRAGMA integrity_check"_s), (QList<QVariantList>{{u"ok"_s}}));
    }

    void fullDiskHoldsUpOnlyWhatNeedsRoom()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        registers(server, Second, 1);
        limitPages(server, 0);
        server->findRadio(First)->supportedServices = QMR::ServiceList(5000, 3);
        server->updateSubscriber(*server->findRadio(First));
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            server->deregisterRadio(Second, QHostAddress(u"127.0.0.3"_s));
        }
        QTRY_COMPARE(rows(server), QStringList{u"01 state 3 at 2 [1]"_s});
        QCOMPARE(server->writeGroup()->owed().of(First), QMR::OwedWrites::Debt::Change);
        limitPages(server, 1000000);
    }

    void groupNeedsNoMoreRoomThanItsWritesOneByOne()
    {
        constexpr int Count = 400;
        QList<qsizetype> stored;
        for (const bool grouped : {false, true}) {
            TestServer server;
            server.startWithoutDiscovery();
            limitPages(server, 0);
            {
                const QMR::WriteTurn turn(grouped ? server->writeGroup() : nullptr);
                QMR::RadioEntry radio;
                for (int i = 0; i < Count; ++i) {
                    radio.esn = esnOf(i);
                    server->insertSubscriber(radio);
                }
            }
            stored.append(rows(server).size());
            QCOMPARE(server.log.takeErrors().size(), Count - stored.last());
        }
        QVERIFY(stored[0] < Count);
        QCOMPARE(stored[1], stored[0]);
    }

    void transactionLeftOpenIsRolledBack()
    {
        TestServer server;
        server.startWithoutDiscovery();
        runSql(QSqlDatabase::database(), u"BEGIN IMMEDIATE"_s);
        registers(server, First, 1);
        runSql(QSqlDatabase::database(), u"BEGIN IMMEDIATE"_s);
        server->setAvailability(server->findRadio(First), QMR::Unconfirmed);
        QCOMPARE(server.log.takeErrors(), QStringList());
        QCOMPARE(rows(server), QStringList{u"01 state 2 at 2 [1]"_s});
    }

    void laterRefusalLeavesAnOlderDebt()
    {
        TestServer server;
        server.startWithoutDiscovery();
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            registers(server, First, 1);
        }
        server.query(u"ALTER TABLE supported_services RENAME TO gone"_s);
        server->setAvailability(server->findRadio(First), QMR::Unconfirmed);
        server.query(u"ALTER TABLE gone RENAME TO supported_services"_s);
        QTRY_COMPARE(rows(server), QStringList{u"01 state 2 at 2 [1]"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void retryThatIsRefusedIsTheLast()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            registers(server, First, 2);
        }
        server.query(
            u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers BEGIN SELECT RAISE(ABORT, 'no'); END"_s);
        server.log.take();
        QTRY_VERIFY(server->writeGroup()->owed().isEmpty());
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QCOMPARE(rows(server), QStringList{u"01 state 3 at 2 [1]"_s});
    }

    void lockIsWaitedForAgainOnceACommitHasSucceeded()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        registers(server, Second, 1);
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            registers(server, First, 2);
        }
        QVERIFY(server->writeGroup()->isLockedOut());
        server.query(u"DELETE FROM subscribers WHERE esn = x'0000000000000001'"_s);
        // Nothing is written by a retry that finds no row; its transaction is committed all the same.
        QTRY_VERIFY(server->writeGroup()->owed().isEmpty());
        QVERIFY(!server->writeGroup()->isLockedOut());
    }

    void lockThatLosesAGroupIsMetOnce()
    {
        TestServer server;
        server.startWithoutDiscovery();
        constexpr int Count = 50;
        const Lock lock(server, u"SHARED"_s);
        QMR::RadioEntry radio;
        StatementTrace trace;
        {
            const QMR::WriteTurn turn(server->writeGroup());
            for (int i = 0; i < Count; ++i) {
                radio.esn = esnOf(i);
                server->insertSubscriber(radio);
            }
        }
        // The group's, and that of the first write by itself.
        QCOMPARE(trace.take().count(u"COMMIT"_s), 2);
        QCOMPARE(server.log.takeErrors(), QStringList(Count, u"Database insert error (3)"_s));
    }

    void readOnlyFileIsWrittenOnceItMay()
    {
        TestServer server;
        server.startWithoutDiscovery();
        runSql(QSqlDatabase::database(), u"PRAGMA query_only = ON"_s);
        registers(server, First, 1);
        QCOMPARE(server.log.takeErrors(),
                 (QStringList{u"Database insert error (1)"_s, u"Database write error"_s}));
        runSql(QSqlDatabase::database(), u"PRAGMA query_only = OFF"_s);
        QTRY_COMPARE(rows(server), QStringList{u"01 state 3 at 2 [1]"_s});
    }

    void manyOwedWritesLeaveTheLoopItsTurns()
    {
        TestServer server;
        server.startWithoutDiscovery();
        constexpr int Count = 5000;
        {
            const Lock lock(server, u"IMMEDIATE"_s);
            for (int i = 0; i < Count; ++i) {
                server->registerRadio(esnOf(i), 3, {}, QHostAddress(0x7F010000U + quint32(i)), Port, false,
                                      {1});
            }
        }
        server.log.take();
        QTRY_COMPARE_WITH_TIMEOUT(
            server.query(u"SELECT count(*) FROM subscribers"_s).value(0).value(0).toInt(), Count, 60000);
        QCOMPARE(server.log.takeErrors(), QStringList());
    }

private:
    static QMR::Esn esnOf(int number)
    {
        return {{1, 0, 0, 0, 0, 0, static_cast<quint8>(number >> 8), static_cast<quint8>(number)}};
    }

    // As on a disk with room for no more than this; 0: what there is now.
    static void limitPages(const TestServer &server, int pages)
    {
        const int now = server.query(u"PRAGMA page_count"_s).value(0).value(0).toInt();
        runSql(QSqlDatabase::database(), u"PRAGMA max_page_count = %1"_s.arg(std::max(pages, now)));
    }
};

QTEST_GUILESS_MAIN(TestOwedWrites)
#include "tst_owedwrites.moc"
