// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/databaselock.h"
#include "tests/support/failingstatements.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QTest>

#include <sqlite3.h>

using namespace Qt::StringLiterals;
using QMR::OwedWrites;
using Debt = QMR::OwedWrites::Debt;

namespace {

constexpr quint16 Port = 9; // nobody hears the acknowledgements

const QMR::Esn First{{0, 0, 0, 0, 0, 0, 0, 1}};
const QMR::Esn Second{{0, 0, 0, 0, 0, 0, 0, 2}};
const QHostAddress Address(u"127.0.0.2"_s);

void registers(const TestServer &server, const QMR::Esn &esn, quint32 service)
{
    server->registerRadio(esn, 3, {}, Address, Port, false, {service});
}

// Serial and services of each row.
QStringList rows(const TestServer &server)
{
    QStringList texts;
    for (const QVariantList &row :
         server.query(u"SELECT hex(substr(esn, 8)), (SELECT group_concat(service) FROM supported_services "
                      "WHERE subscriber_id = id) FROM subscribers ORDER BY esn"_s)) {
        texts.append(u"%1 [%2]"_s.arg(row[0].toString(), row[1].toString()));
    }
    return texts;
}

Debt debt(const TestServer &server)
{
    return server->writeGroup()->owed().of(First);
}

// Somebody else removes a radio's row once its group is over, before its write is tried by itself.
class RowRemoval
{
public:
    explicit RowRemoval(const TestServer &server)
        : trace([this, &server](const QString &statement) {
              if (statement == u"BEGIN IMMEDIATE" && ++begun == 2) {
                  server.query(u"DELETE FROM subscribers WHERE esn = x'0000000000000001'"_s);
              }
          })
    {
    }

private:
    int begun = 0;
    StatementTrace trace;
};

} // namespace

// What a radio's failed writes leave to be done, and when it is done.
class TestDebts : public QObject
{
    Q_OBJECT

private slots:
    void debtFollowsTheFailures_data()
    {
        // A small letter: another write of the radio is open or has failed behind it.
        QTest::addColumn<QString>("failed");
        QTest::addColumn<Debt>("debt");
        QTest::newRow("nothing") << QString() << Debt::None;
        QTest::newRow("changed") << u"U"_s << Debt::Change;
        QTest::newRow("changed twice") << u"UU"_s << Debt::Change;
        QTest::newRow("left") << u"D"_s << Debt::Change;
        QTest::newRow("changed and left") << u"UD"_s << Debt::Change;
        QTest::newRow("came") << u"I"_s << Debt::Insert;
        QTest::newRow("came twice") << u"II"_s << Debt::Insert;
        QTest::newRow("came and changed") << u"IU"_s << Debt::Insert;
        QTest::newRow("came and left") << u"ID"_s << Debt::None;
        QTest::newRow("came, changed and left") << u"IUD"_s << Debt::None;
        QTest::newRow("came, left and came") << u"IDI"_s << Debt::Insert;
        QTest::newRow("left and came") << u"DI"_s << Debt::Unknown;
        QTest::newRow("left, came and changed") << u"DIU"_s << Debt::Unknown;
        QTest::newRow("left, came and left") << u"DID"_s << Debt::Change;
        QTest::newRow("came, another open") << u"i"_s << Debt::Unknown;
        QTest::newRow("came, then left, another open") << u"Id"_s << Debt::Unknown;
        QTest::newRow("came, another open, then changed") << u"iU"_s << Debt::Unknown;
        QTest::newRow("came, another open, then left") << u"iD"_s << Debt::Change;
    }

    void debtFollowsTheFailures()
    {
        QFETCH(const QString, failed);
        QFETCH(const Debt, debt);
        OwedWrites owed;
        for (const QChar write : failed) {
            const QMR::RowWrite::Kind kind = write.toUpper() == u'I'   ? QMR::RowWrite::Insert
                                             : write.toUpper() == u'U' ? QMR::RowWrite::Update
                                                                       : QMR::RowWrite::Delete;
            owed.owe(First, kind, write.isUpper());
        }
        QCOMPARE(owed.of(First), debt);
        QCOMPARE(owed.isEmpty(), debt == Debt::None);
        QCOMPARE(owed.of(Second), Debt::None);
    }

    void radiosThatOnlyCameAndWentAreNotOwed_data()
    {
        QTest::addColumn<DatabaseLock::Kind>("kind");
        QTest::addColumn<bool>("inOneGroup");
        QTest::newRow("another writes") << DatabaseLock::Reserved << false;
        QTest::newRow("another reads") << DatabaseLock::Shared << false;
        QTest::newRow("another writes, one group") << DatabaseLock::Reserved << true;
        QTest::newRow("another reads, one group") << DatabaseLock::Shared << true;
    }

    void radiosThatOnlyCameAndWentAreNotOwed()
    {
        QFETCH(const DatabaseLock::Kind, kind);
        QFETCH(const bool, inOneGroup);
        TestServer server;
        server.startWithoutDiscovery();
        setBusyTimeout(0);
        const DatabaseLock lock(server.folder.databaseFile(), kind);
        {
            const QMR::WriteTurn turn(inOneGroup ? server->writeGroup() : nullptr);
            registers(server, First, 1);
            registers(server, Second, 1); // the first loses its address
        }
        QCOMPARE(server.log.count(u"Database delete error"_s), 1);
        QCOMPARE(debt(server), Debt::None);
        QCOMPARE(server->writeGroup()->owed().of(Second), Debt::Insert);
        server->deregisterRadio(Second, Address);
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void radioThatLeftCameAndLeftIsDeleted()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        setBusyTimeout(0);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            server->deregisterRadio(First, Address);
            registers(server, First, 2);
            server->deregisterRadio(First, Address);
        }
        QCOMPARE(rows(server), QStringList{u"01 [1]"_s});
        server.expireRetry();
        QCOMPARE(rows(server), QStringList());
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void earlierWriteOfTheGroupDoesNotSettle()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        const FailingStatements statements(server, SQLITE_BUSY);
        {
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, First, 2);
            statements.begin(u"UPDATE"_s);
            registers(server, First, 3);
        }
        QCOMPARE(rows(server), QStringList{u"01 [2]"_s});
        QVERIFY(debt(server) != Debt::None);
        statements.end();
        server.expireRetry();
        QCOMPARE(rows(server), QStringList{u"01 [3]"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void failureOfOneRadioLeavesTheOthersOfTheGroup()
    {
        TestServer server;
        server.startWithoutDiscovery();
        server->registerRadio(First, 3, {}, Address, Port, false, {1});
        server->registerRadio(Second, 3, {}, QHostAddress(u"127.0.0.3"_s), Port, false, {1});
        const FailingStatements statements(server, SQLITE_BUSY);
        statements.begin(u"UPDATE"_s);
        registers(server, First, 2);
        QCOMPARE(debt(server), Debt::Change);
        statements.end();
        {
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, First, 3);
            statements.begin(u"UPDATE"_s);
            server->updateSubscriber(*server->findRadio(Second));
        }
        QCOMPARE(rows(server), (QStringList{u"01 [3]"_s, u"02 [1]"_s}));
        QCOMPARE(debt(server), Debt::None);
        QCOMPARE(server->writeGroup()->owed().of(Second), Debt::Change);
        statements.end();
    }

    void rowThatIsOnlyInTheOpenGroupIsStillToBeDeleted()
    {
        TestServer server;
        server.startWithoutDiscovery();
        setBusyTimeout(0);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registers(server, First, 1);
        }
        QCOMPARE(debt(server), Debt::Insert);
        const FailingStatements statements(server, SQLITE_BUSY);
        {
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, First, 2);
            statements.begin(u"DELETE"_s);
            server->deregisterRadio(First, Address);
        }
        QCOMPARE(rows(server), QStringList{u"01 [2]"_s});
        statements.end();
        server.expireRetry();
        QCOMPARE(rows(server), QStringList());
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void rowThatMayBeThereIsReplaced()
    {
        TestServer server;
        server.startWithoutDiscovery();
        const FailingStatements statements(server, SQLITE_BUSY);
        {
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, First, 1);
            statements.begin(u"DELETE"_s);
            server->deregisterRadio(First, Address);
            statements.end();
        }
        QCOMPARE(rows(server), QStringList{u"01 [1]"_s});
        QCOMPARE(debt(server), Debt::Unknown);
        server.log.take();
        registers(server, First, 2);
        QCOMPARE(server.log.count(u"Database insert error (1)"_s), 0);
        QCOMPARE(rows(server), QStringList{u"01 [2]"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void rowThatCannotBeReplacedFailsTheInsert()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        const FailingStatements statements(server, SQLITE_BUSY);
        statements.begin(u"DELETE"_s);
        server->deregisterRadio(First, Address);
        server.log.take();
        registers(server, First, 2);
        statements.end();
        QCOMPARE(server.log.count(u"Database insert error (1)"_s), 1);
        // The update that follows finds the row.
        QCOMPARE(rows(server), QStringList{u"01 [2]"_s});
    }

    void debtOutlastsAFailureOfAnotherKind_data()
    {
        QTest::addColumn<int>("resultCode");
        QTest::addColumn<bool>("isRetry");
        QTest::newRow("error of a retry") << SQLITE_ERROR << true;
        QTest::newRow("error of the radio's next write") << SQLITE_ERROR << false;
        QTest::newRow("refusal of the radio's next write") << SQLITE_CONSTRAINT << false;
    }

    void debtOutlastsAFailureOfAnotherKind()
    {
        QFETCH(const int, resultCode);
        QFETCH(const bool, isRetry);
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        setBusyTimeout(0);
        const FailingStatements statements(server, resultCode);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
            registers(server, First, 2);
        }
        statements.begin(u"UPDATE"_s);
        if (isRetry) {
            server.expireRetry();
        } else {
            server->updateSubscriber(*server->findRadio(First));
        }
        QCOMPARE(debt(server), Debt::Change);
        statements.end();
        server.expireRetry();
        QCOMPARE(rows(server), QStringList{u"01 [2]"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void lostGroupDoesNotForgetItsLastFailure()
    {
        TestServer server;
        server.startWithoutDiscovery();
        setBusyTimeout(0);
        const FailingStatements statements(server, SQLITE_BUSY);
        {
            const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Shared);
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, First, 1);
            server->deregisterRadio(First, Address);
            statements.begin(u"INSERT"_s);
            registers(server, First, 2);
            statements.end();
        }
        QCOMPARE(rows(server), QStringList());
        server.expireRetry();
        QCOMPARE(rows(server), QStringList{u"01 [2]"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void writeThatMayNeedLessByItselfIsTriedSo_data()
    {
        QTest::addColumn<int>("resultCode");
        QTest::addColumn<bool>("again");
        QTest::newRow("no memory") << SQLITE_NOMEM << true;
        QTest::newRow("full") << SQLITE_FULL << true;
        QTest::newRow("cannot open") << SQLITE_CANTOPEN << true;
        QTest::newRow("somebody else's lock") << SQLITE_BUSY << false;
        QTest::newRow("refused") << SQLITE_CONSTRAINT << false;
    }

    void writeThatMayNeedLessByItselfIsTriedSo()
    {
        QFETCH(const int, resultCode);
        QFETCH(const bool, again);
        TestServer server;
        server.startWithoutDiscovery();
        server->registerRadio(First, 3, {}, Address, Port, false, {1});
        server->registerRadio(Second, 3, {}, QHostAddress(u"127.0.0.3"_s), Port, false, {1});
        const FailingStatements statements(server, resultCode, 1);
        server.log.take();
        StatementTrace trace;
        {
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, First, 2);
            statements.begin(u"UPDATE"_s);
            server->findRadio(Second)->supportedServices = {2};
            server->updateSubscriber(*server->findRadio(Second));
        }
        // The group is stored before the write is tried by itself.
        QCOMPARE(trace.take().count(u"COMMIT"_s), again ? 2 : 1);
        QCOMPARE(server.log.count(u"Database write error"_s), again ? 0 : 1);
        QCOMPARE(rows(server), (QStringList{u"01 [2]"_s, again ? u"02 [2]"_s : u"02 [1]"_s}));
        QCOMPARE(server->writeGroup()->owed().of(Second),
                 resultCode == SQLITE_BUSY ? Debt::Change : Debt::None);
        statements.end();
    }

    // Nothing of it can have been stored: a row that is missing is an error, and is not made anew.
    void writeOfALostGroupIsStillAnUpdate()
    {
        TestServer server;
        server.startWithoutDiscovery();
        server->registerRadio(First, 3, {}, Address, Port, false, {1});
        server->registerRadio(Second, 3, {}, QHostAddress(u"127.0.0.3"_s), Port, false, {1});
        server.query(u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers WHEN NEW.esn = x'0000000000000002' "
                     "BEGIN SELECT RAISE(ROLLBACK, 'no'); END"_s);
        server.log.take();
        {
            const RowRemoval removal(server);
            const QMR::WriteTurn turn(server->writeGroup());
            server->updateSubscriber(*server->findRadio(First));
            server->updateSubscriber(*server->findRadio(Second));
        }
        QCOMPARE(server.log.takeErrors(),
                 (QStringList{u"Database write error"_s, u"Database write error"_s}));
        QCOMPARE(rows(server), QStringList{u"02 [1]"_s});
    }

    void writeThatIsTriedByItselfIsStillAnUpdate()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, First, 1);
        server.log.take();
        const FailingStatements statements(server, SQLITE_FULL, 1);
        statements.begin(u"UPDATE"_s);
        {
            const RowRemoval removal(server);
            const QMR::WriteTurn turn(server->writeGroup());
            server->updateSubscriber(*server->findRadio(First));
        }
        QCOMPARE(server.log.takeErrors(), QStringList{u"Database write error"_s});
        QCOMPARE(rows(server), QStringList());
        statements.end();
    }

    // Its savepoint has been rolled back: its row need not be looked for.
    void insertThatFailsInItsGroupIsKnownToBeAbsent()
    {
        TestServer server;
        server.startWithoutDiscovery();
        const FailingStatements statements(server, SQLITE_BUSY);
        registers(server, Second, 1); // reads the schema with the table that fails
        statements.begin(u"INSERT"_s);
        StatementTrace trace;
        {
            const QMR::WriteTurn turn(server->writeGroup());
            QMR::RadioEntry radio;
            radio.esn = First;
            server->insertSubscriber(radio);
        }
        QCOMPARE(trace.take(), (QStringList{u"BEGIN IMMEDIATE"_s, u"SAVEPOINT write"_s,
                                            u"ROLLBACK TO write"_s, u"RELEASE write"_s, u"COMMIT"_s}));
        QCOMPARE(debt(server), Debt::Insert);
        statements.end();
    }

    void lockEndsARoundOfRetries()
    {
        TestServer server;
        server.startWithoutDiscovery();
        setBusyTimeout(0);
        const DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
        server->registerRadio(First, 3, {}, Address, Port, false, {1});
        server->registerRadio(Second, 3, {}, QHostAddress(u"127.0.0.3"_s), Port, false, {1});
        server.log.take();
        StatementTrace trace;
        server.expireRetry();
        QCOMPARE(trace.take(), QStringList{u"BEGIN IMMEDIATE"_s});
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }
};

QTEST_GUILESS_MAIN(TestDebts)
#include "tst_debts.moc"
