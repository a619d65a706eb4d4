// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/sqlite.h"
#include "db/writegroup.h"
#include "tests/support/databaselock.h"
#include "tests/support/failingstatements.h"
#include "tests/support/serverdatabase.h"

#include <QProperty>
#include <QTest>
#include <QTimer>

#include <sqlite3.h>

#include <functional>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr quint16 Port = 9;  // nobody hears the acknowledgements
constexpr int Many = 500;    // whose retries take longer than one round may
constexpr int Rounds = Many; // each tries one radio at least
constexpr int Pause = 1000;  // ms between two rounds

// It runs, and waits for no lock.
class ImpatientServer : public TestServer
{
public:
    ImpatientServer()
    {
        startWithoutDiscovery();
        clock.workTakes(1ms);
        setBusyTimeout(0);
    }
};

QMR::Esn esnOf(int number)
{
    return {{1, 0, 0, 0, 0, 0, static_cast<quint8>(number >> 8), static_cast<quint8>(number)}};
}

QHostAddress addressOf(int number)
{
    return QHostAddress(0x7F010000U + static_cast<quint32>(number));
}

void registers(const TestServer &server, int number, quint32 service = 1)
{
    server->registerRadio(esnOf(number), 3, {}, addressOf(number), Port, false, {service});
}

void registerMany(const TestServer &server)
{
    const QMR::WriteTurn turn(server->writeGroup());
    for (int i = 0; i < Many; ++i) {
        registers(server, i);
    }
}

bool isOwed(const TestServer &server, int number)
{
    return server->writeGroup()->owed().of(esnOf(number)) != QMR::OwedWrites::Debt::None;
}

bool nothingIsOwed(const TestServer &server)
{
    return server->writeGroup()->owed().isEmpty();
}

int stored(const TestServer &server, int service)
{
    return server.query(u"SELECT count(*) FROM supported_services WHERE service = %1"_s.arg(service))
        .value(0)
        .value(0)
        .toInt();
}

// Another radio's row goes, then the first one's is changed. A lock shows at the commit alone.
QMR::WriteResult resultOfTheSecondRetry(const TestServer &server)
{
    const QMR::WriteTurn turn(server->writeGroup());
    const auto result = server->writeGroup()->retry(QMR::RowWrite::Delete, QMR::SubscriberRow(esnOf(1)));
    if (result != QMR::WriteResult::Stored) {
        return result;
    }
    return server->writeGroup()->retry(QMR::RowWrite::Update,
                                       QMR::SubscriberRow(*server->findRadio(esnOf(0))));
}

// The server's own connection, with an SQL function that calls ours.
QSqlDatabase connectionWith(const char *name, const std::function<int()> &function)
{
    const QSqlDatabase connection = QSqlDatabase::database();
    sqlite3_create_function_v2(
        QMR::Sqlite::handle(connection), name, 0, SQLITE_UTF8, new std::function<int()>(function),
        [](sqlite3_context *context, int, sqlite3_value **) {
            sqlite3_result_int(context, (*static_cast<std::function<int()> *>(sqlite3_user_data(context)))());
        },
        nullptr, nullptr, [](void *own) { delete static_cast<std::function<int()> *>(own); });
    return connection;
}

} // namespace

// When what is owed is tried again, how much of it at a time, and in which order.
class TestRetryRounds : public QObject
{
    Q_OBJECT

private slots:
    void timerRunsOnlyWhileSomethingIsOwed()
    {
        ImpatientServer server;
        registers(server, 0);
        QVERIFY(!server->timerForRetry().isActive());
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registers(server, 0, 2);
            QVERIFY(server->timerForRetry().isActive());
            QCOMPARE(server->timerForRetry().interval(), Pause);
            server.expireRetry();
            QVERIFY(server->timerForRetry().isActive());
            QCOMPARE(server->timerForRetry().interval(), Pause);
        }
        server.expireRetry();
        QVERIFY(nothingIsOwed(server));
        QVERIFY(!server->timerForRetry().isActive());
    }

    void otherCommitsDoNotPutTheRetryOff()
    {
        ImpatientServer server;
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registers(server, 0);
        }
        int changes = 0; // a timer that is armed anew stops first
        const auto watch =
            const_cast<QTimer &>(server->timerForRetry()).bindableActive().addNotifier([&] { ++changes; });
        registers(server, 1);
        QVERIFY(isOwed(server, 0));
        QCOMPARE(changes, 0);
        server.expireRetry();
        QVERIFY(changes > 0);
    }

    void stopEndsTheRetries()
    {
        ImpatientServer server;
        const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
        registers(server, 0);
        server.stop();
        QVERIFY(!server->timerForRetry().isActive());
    }

    void roundThatEndedEarlyGoesOnAtOnce()
    {
        ImpatientServer server;
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registerMany(server);
        }
        server.expireRetry();
        // A round has 20 ms, and each of its radios costs one here.
        QVERIFY(!isOwed(server, 19));
        QVERIFY(isOwed(server, 20));
        QCOMPARE(server->timerForRetry().interval(), 0);
        {
            // A reader lets the round write, but not commit.
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Shared);
            server.expireRetry();
            QCOMPARE(server->timerForRetry().interval(), Pause);
        }
    }

    void roundWhoseTimeEndsWithItsLastRadioIsWhole()
    {
        ImpatientServer server;
        registers(server, 0);
        registers(server, 1);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            server->deregisterRadio(esnOf(0), addressOf(0));
            registers(server, 1, 2);
        }
        const FailingStatements statements(server, SQLITE_FULL);
        statements.begin(u"DELETE"_s);
        int writes = 0;
        const QSqlDatabase connection = connectionWith("slow", [&writes, &server] {
            server.clock.workPauses(20ms); // all of a round
            return ++writes;
        });
        runSql(connection, u"CREATE TEMP TRIGGER slow BEFORE UPDATE ON subscribers WHEN slow() > 1 "
                           "BEGIN SELECT RAISE(FAIL, 'no'); END"_s);
        server.expireRetry();
        QCOMPARE(writes, 1);
        QVERIFY(isOwed(server, 0));
        QVERIFY(!isOwed(server, 1));
        QCOMPARE(server->timerForRetry().interval(), Pause);
        statements.end();
    }

    // Nothing else is written in it, and its commit succeeds.
    void roundThatMeetsALockAtItsWriteIsNotFollowedAtOnce()
    {
        ImpatientServer server;
        registers(server, 0);
        const FailingStatements statements(server, SQLITE_BUSY);
        statements.begin(u"UPDATE"_s);
        registers(server, 0, 2);
        server.expireRetry();
        QVERIFY(isOwed(server, 0));
        QVERIFY(!server->writeGroup()->isLockedOut());
        QCOMPARE(server->timerForRetry().interval(), Pause);
        statements.end();
    }

    void retryTellsALockFromAnotherFailure()
    {
        ImpatientServer server;
        registers(server, 0);
        registers(server, 1);
        const FailingStatements statements(server, SQLITE_FULL);
        statements.begin(u"UPDATE"_s);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Shared);
            // It fails for want of room itself, but the lock is in the way of those that it was written with.
            QCOMPARE(resultOfTheSecondRetry(server), QMR::WriteResult::Locked);
        }
        QCOMPARE(resultOfTheSecondRetry(server), QMR::WriteResult::Failed);
        statements.end();
        QCOMPARE(resultOfTheSecondRetry(server), QMR::WriteResult::Stored);
    }

    void retryInALostGroupTellsALock()
    {
        ImpatientServer server;
        registers(server, 0);
        registers(server, 1);
        server.query(
            u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers BEGIN SELECT RAISE(ROLLBACK, 'no'); END"_s);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Shared);
            QCOMPARE(resultOfTheSecondRetry(server), QMR::WriteResult::Locked);
        }
        QCOMPARE(resultOfTheSecondRetry(server), QMR::WriteResult::Failed);
    }

    // Radio 0 fails by itself after the loss: that is no reason not to try radio 1.
    void lockThatIsOverKeepsNoneOfALostGroupFromItsTry()
    {
        ImpatientServer server;
        registers(server, 0);
        registers(server, 1);
        registers(server, 2);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registers(server, 3);
        }
        QVERIFY(server->writeGroup()->isLockedOut());
        int tries = 0;
        const QSqlDatabase connection = connectionWith("tries", [&tries] { return ++tries; });
        runSql(connection, u"CREATE TEMP TRIGGER first BEFORE UPDATE ON subscribers WHEN hex(NEW.esn) LIKE "
                           "'%00' AND tries() > 1 BEGIN SELECT RAISE(FAIL, 'no'); END"_s);
        runSql(connection, u"CREATE TEMP TRIGGER last BEFORE UPDATE ON subscribers WHEN hex(NEW.esn) LIKE "
                           "'%02' BEGIN SELECT RAISE(ROLLBACK, 'no'); END"_s);
        {
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, 0, 2);
            registers(server, 1, 2);
            registers(server, 2, 2);
        }
        QCOMPARE(tries, 2);
        QVERIFY(!isOwed(server, 1));
        QCOMPARE(stored(server, 2), 1);
    }

    void whatFollowsALostGroupIsAGroupAgain()
    {
        ImpatientServer server;
        registers(server, 0);
        registers(server, 1);
        server.query(u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers WHEN hex(NEW.esn) LIKE '%00' "
                     "BEGIN SELECT RAISE(ROLLBACK, 'no'); END"_s);
        {
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, 0, 2);
            registers(server, 1, 2);
            QCOMPARE(stored(server, 2), 0);
        }
        QCOMPARE(stored(server, 2), 1);
    }

    void whatFailsAgainDoesNotKeepTheOthersFromTheirTurn()
    {
        ImpatientServer server;
        registerMany(server);
        const FailingStatements statements(server, SQLITE_FULL);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            for (int i = 0; i < Many - 1; ++i) {
                registers(server, i, 2);
            }
            server->deregisterRadio(esnOf(Many - 1), addressOf(Many - 1));
        }
        statements.begin(u"UPDATE"_s);
        for (int i = 0; i < Rounds && isOwed(server, Many - 1); ++i) {
            server.expireRetry();
        }
        QVERIFY(!isOwed(server, Many - 1));
        QVERIFY(isOwed(server, 0));
        QCOMPARE(server->timerForRetry().interval(), Pause); // they have all been tried
        statements.end();
        for (int i = 0; i < Rounds && !nothingIsOwed(server); ++i) {
            server.expireRetry();
        }
        QVERIFY(nothingIsOwed(server));
        QCOMPARE(stored(server, 2), Many - 1);
    }

    void stopTriesThoseTooWhoseTurnIsOver()
    {
        ImpatientServer server;
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registerMany(server);
        }
        server.expireRetry();
        QVERIFY(!nothingIsOwed(server));
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registers(server, 0, 2);
        }
        server.clock.workTakes(1min); // a stop takes as long as that needs
        server.stop();
        QCOMPARE(stored(server, 1), Many - 1);
        QCOMPARE(stored(server, 2), 1);
    }
};

QTEST_GUILESS_MAIN(TestRetryRounds)
#include "tst_retryrounds.moc"
