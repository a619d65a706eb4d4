// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/integration/schemahistory.h"
#include "tests/support/databaselock.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QTest>

#include <algorithm>
#include <functional>
#include <optional>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// How many checks the server has begun.
class Attempts
{
public:
    void count(const QString &statement) { begun += statement == u"BEGIN"_s ? 1 : 0; }
    int number() const { return begun; }

private:
    int begun = 0;
};

struct Stored
{
    QList<QVariantList> schema;
    QList<QVariantList> version;
    QList<QVariantList> radios;
    QList<QVariantList> services;

    bool operator==(const Stored &) const = default;
};

Stored stored(const SchemaCheck &check)
{
    return {check.query(u"SELECT name, sql FROM sqlite_master ORDER BY name"_s),
            check.query(u"SELECT * FROM config"_s), check.query(u"SELECT * FROM subscribers"_s),
            check.query(u"SELECT * FROM supported_services"_s)};
}

} // namespace

// Somebody else's lock at any point of the check: it is waited for, and no radio is lost to it.
class TestSchemaLocks : public QObject
{
    Q_OBJECT

private slots:
    void lockThatEndsInTimeIsWaitedFor_data()
    {
        addLockColumns();
        QTest::addColumn<std::chrono::milliseconds>("duration"); // after the first has met the lock
        QTest::addColumn<int>("busyTimeout");
        addLocksInTheWay([](QTestData &row) { row << 400ms << 0; });
        addLock("7 s: version 3, exclusive", 3, false, DatabaseLock::Exclusive) << 2000ms << 5000;
        addLock("7 s: version 1, reserved", 1, false, DatabaseLock::Reserved) << 6750ms << 250;
    }

    void lockThatEndsInTimeIsWaitedFor()
    {
        QFETCH(const int, version);
        QFETCH(const DatabaseLock::Kind, kind);
        QFETCH(const std::chrono::milliseconds, duration);
        QFETCH(const int, busyTimeout);
        SchemaCheck check;
        createFetched(check);
        setBusyTimeout(busyTimeout);
        DatabaseLock lock(check.server.folder.databaseFile(), kind);

        Attempts attempts;
        bool current = false;
        {
            const StatementTrace trace([&](const QString &statement) {
                attempts.count(statement);
                if (attempts.number() == 2) {
                    lock.releaseAfter(duration);
                }
            });
            current = check.run();
        }
        lock.release();
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QVERIFY(current);
        verifyCurrent(check, version);
    }

    void lockThatOutlivesThePatienceLeavesAllAsItIs_data()
    {
        addLockColumns();
        addLocksInTheWay([](QTestData &) {});
    }

    void lockThatOutlivesThePatienceLeavesAllAsItIs()
    {
        QFETCH(const int, version);
        QFETCH(const DatabaseLock::Kind, kind);
        SchemaCheck check;
        createFetched(check);
        const Stored before = stored(check);
        setBusyTimeout(0);
        {
            const DatabaseLock lock(check.server.folder.databaseFile(), kind);
            StatementTrace trace;
            QVERIFY(!check.run(300ms));
            const QStringList statements = trace.take();
            QVERIFY(statements.count(u"BEGIN"_s) > 1);
            QCOMPARE(statements.count(u"ROLLBACK"_s), statements.count(u"BEGIN"_s));
            QVERIFY(statements.filter(u"DROP"_s).isEmpty());
        }
        QCOMPARE(check.server.log.take(), (QList{replacingRecord(), failedScriptRecord()}));
        QVERIFY(stored(check) == before);

        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        verifyCurrent(check, version);
    }

    void withoutPatienceThereIsOneAttempt()
    {
        SchemaCheck check;
        create(check, 2, false);
        setBusyTimeout(0);
        const DatabaseLock lock(check.server.folder.databaseFile(), DatabaseLock::Exclusive);
        StatementTrace trace;
        QVERIFY(!check.run(0ms));
        QCOMPARE(trace.take(), (QStringList{u"BEGIN"_s, u"ROLLBACK"_s}));
        QCOMPARE(check.server.log.take(), (QList{replacingRecord(), failedScriptRecord()}));
    }

    void lockThatIsNotInTheWayIsNotWaitedFor_data()
    {
        addLockColumns();
        addLock("version 3, shared", 3, false, DatabaseLock::Shared);
        addLock("version 3, reserved", 3, false, DatabaseLock::Reserved);
        addLock("version 1, shared, write-ahead log", 1, true, DatabaseLock::Shared);
        addLock("version 2, shared, write-ahead log", 2, true, DatabaseLock::Shared);
        addLock("version 3, shared, write-ahead log", 3, true, DatabaseLock::Shared);
        addLock("version 3, reserved, write-ahead log", 3, true, DatabaseLock::Reserved);
        addLock("version 3, exclusive, write-ahead log", 3, true, DatabaseLock::Exclusive);
    }

    void lockThatIsNotInTheWayIsNotWaitedFor()
    {
        QFETCH(const int, version);
        QFETCH(const DatabaseLock::Kind, kind);
        SchemaCheck check;
        createFetched(check);
        setBusyTimeout(0);
        {
            const DatabaseLock lock(check.server.folder.databaseFile(), kind);
            QVERIFY(check.run(0ms));
        }
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        verifyCurrent(check, version);
    }

    void readerThatComesAtTheCommitIsWaitedFor()
    {
        SchemaCheck check;
        create(check, 1, false);
        setBusyTimeout(0);
        Attempts attempts;
        std::optional<DatabaseLock> lock;
        const StatementTrace trace([&](const QString &statement) {
            attempts.count(statement);
            if (attempts.number() == 1 && statement == u"COMMIT"_s) {
                lock.emplace(check.server.folder.databaseFile(), DatabaseLock::Shared);
            } else if (attempts.number() == 3) {
                lock.reset();
            }
        });
        QVERIFY(check.run());
        QCOMPARE(attempts.number(), 3);
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        verifyCurrent(check, 1);
    }

    // What the check has read is out of date when it comes to write.
    void rowWrittenBetweenTheVersionAndTheUpgradeIsKept()
    {
        SchemaCheck check;
        create(check, 2, true);
        setBusyTimeout(0);
        Attempts attempts;
        const StatementTrace trace([&](const QString &statement) {
            attempts.count(statement);
            if (attempts.number() == 1 && statement == addVersionColumn()) {
                check.query(u"INSERT INTO supported_services VALUES (8, 4)"_s);
            }
        });
        QVERIFY(check.run());
        QCOMPARE(attempts.number(), 2);
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QCOMPARE(check.query(u"SELECT * FROM supported_services"_s),
                 (QList<QVariantList>{{7LL, 1LL}, {8LL, 4LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM subscribers"_s), (QList<QVariantList>{{2LL}}));
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
    }

    void versionIsReadAnewAfterTheLock()
    {
        SchemaCheck check;
        create(check, 2, false);
        setBusyTimeout(0);
        DatabaseLock lock(check.server.folder.databaseFile(), DatabaseLock::Exclusive);
        Attempts attempts;
        StatementTrace trace([&](const QString &statement) {
            attempts.count(statement);
            if (attempts.number() == 2 && statement == u"BEGIN"_s) {
                lock.execute(addVersionColumn().toUtf8().constData());
                lock.execute("UPDATE subscribers SET protocol_version = 2");
                lock.execute("UPDATE config SET database_version = 3");
                lock.release();
            }
        });
        QVERIFY(check.run());
        QCOMPARE(trace.take(), (QStringList{u"BEGIN"_s, u"ROLLBACK"_s, u"BEGIN"_s,
                                            u"SELECT database_version FROM config"_s, u"COMMIT"_s}));
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        verifyCurrent(check, 2);
    }

    void lockInTheMiddleOfTheReplacementIsWaitedFor_data() { addScriptLocks(); }

    void lockInTheMiddleOfTheReplacementIsWaitedFor()
    {
        QFETCH(const QString, lockedStatement);
        QFETCH(const DatabaseLock::Kind, kind);
        SchemaCheck check;
        create(check, 4, false);
        setBusyTimeout(0);
        int sinceTheLock = 0;
        std::optional<DatabaseLock> lock;
        const StatementTrace trace([&](const QString &statement) {
            if (sinceTheLock > 0 || statement == lockedStatement) {
                ++sinceTheLock;
            }
            if (sinceTheLock == 1) {
                lock.emplace(check.server.folder.databaseFile(), kind);
            } else if (sinceTheLock == 4) {
                lock.reset();
            }
        });
        QVERIFY(check.run());
        QVERIFY(!lock);
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM subscribers"_s), (QList<QVariantList>{{0LL}}));
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
    }

    void replacementThatALockHasStoppedIsMadeGoodByTheNext_data() { addScriptLocks(); }

    void replacementThatALockHasStoppedIsMadeGoodByTheNext()
    {
        QFETCH(const QString, lockedStatement);
        QFETCH(const DatabaseLock::Kind, kind);
        SchemaCheck check;
        create(check, 4, false);
        setBusyTimeout(0);
        {
            std::optional<DatabaseLock> lock;
            const StatementTrace trace([&](const QString &statement) {
                if (!lock && statement == lockedStatement) {
                    lock.emplace(check.server.folder.databaseFile(), kind);
                }
            });
            QVERIFY(!check.run(20ms));
        }
        QCOMPARE(check.server.log.take(), (QList{replacingRecord(), failedScriptRecord()}));
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
    }

    void lockAtTheStartOfTheServerLosesNoRadio()
    {
        TestServer server;
        for (const QString &statement : schemaHistory(2)) {
            server.query(statement);
        }
        addRows(server, 2);
        DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Reserved);
        Attempts attempts;
        const StatementTrace trace([&](const QString &statement) {
            attempts.count(statement);
            if (attempts.number() == 2) {
                lock.release();
            }
        });
        server->start();
        QCOMPARE(server.log.count(replacingRecord().message), 0);
        QCOMPARE(server->radios().size(), size_t{2});
    }

private:
    static void addLockColumns()
    {
        QTest::addColumn<int>("version");
        QTest::addColumn<bool>("writeAheadLog");
        QTest::addColumn<DatabaseLock::Kind>("kind");
    }

    static QTestData &addLock(const char *name, int version, bool writeAheadLog, DatabaseLock::Kind kind)
    {
        return QTest::newRow(name) << version << writeAheadLog << kind;
    }

    // Each that the check cannot pass. An upgrade needs the file for itself, the current version only its
    // content.
    static void addLocksInTheWay(const std::function<void(QTestData &)> &addTo)
    {
        addTo(addLock("version 1, shared", 1, false, DatabaseLock::Shared));
        addTo(addLock("version 1, reserved", 1, false, DatabaseLock::Reserved));
        addTo(addLock("version 1, pending", 1, false, DatabaseLock::Pending));
        addTo(addLock("version 1, exclusive", 1, false, DatabaseLock::Exclusive));
        addTo(addLock("version 2, shared", 2, false, DatabaseLock::Shared));
        addTo(addLock("version 2, reserved", 2, false, DatabaseLock::Reserved));
        addTo(addLock("version 2, pending", 2, false, DatabaseLock::Pending));
        addTo(addLock("version 2, exclusive", 2, false, DatabaseLock::Exclusive));
        addTo(addLock("version 3, pending", 3, false, DatabaseLock::Pending));
        addTo(addLock("version 3, exclusive", 3, false, DatabaseLock::Exclusive));
        addTo(addLock("version 1, reserved, write-ahead log", 1, true, DatabaseLock::Reserved));
        addTo(addLock("version 1, exclusive, write-ahead log", 1, true, DatabaseLock::Exclusive));
        addTo(addLock("version 1, whole file, write-ahead log", 1, true, DatabaseLock::WholeFile));
        addTo(addLock("version 2, reserved, write-ahead log", 2, true, DatabaseLock::Reserved));
        addTo(addLock("version 2, exclusive, write-ahead log", 2, true, DatabaseLock::Exclusive));
        addTo(addLock("version 2, whole file, write-ahead log", 2, true, DatabaseLock::WholeFile));
        addTo(addLock("version 3, whole file, write-ahead log", 3, true, DatabaseLock::WholeFile));
    }

    // At each statement of the script that touches the file.
    static void addScriptLocks()
    {
        QTest::addColumn<QString>("lockedStatement");
        QTest::addColumn<DatabaseLock::Kind>("kind");
        for (const QString &statement : schemaScript()) {
            if (statement.startsWith(u"PRAGMA"_s)) {
                continue;
            }
            const QString name = statement.section(u' ', 0, 5).section(u'(', 0, 0);
            QTest::addRow("exclusive: %s", qPrintable(name)) << statement << DatabaseLock::Exclusive;
            QTest::addRow("shared: %s", qPrintable(name)) << statement << DatabaseLock::Shared;
        }
    }

    static void addRows(const TestServer &server, int version)
    {
        const QString suid = version == 1 ? QString() : u"x'123456789ABCDE', "_s;
        const QString more = version < 3 ? QString() : u", 2"_s;
        server.query(u"INSERT INTO subscribers VALUES (7, x'0011AABB22CC33DD', "_s % suid %
                     u"2130706437, 3, 1000, 2, 900"_s % more % u"), (8, x'0011AABB22CC33DE', "_s % suid %
                     u"2130706438, 1, 1001, 0, 901"_s % more % u")"_s);
        server.query(u"INSERT INTO supported_services VALUES (7, 1)"_s);
    }

    // Version 4 is a newer program's, which the server must replace.
    static void create(const SchemaCheck &check, int version, bool writeAheadLog)
    {
        check.create(std::min(version, 3));
        addRows(check.server, version);
        check.query(u"UPDATE config SET database_version = "_s % QString::number(version));
        if (writeAheadLog) {
            check.query(u"PRAGMA journal_mode = WAL"_s);
        }
    }

    static void createFetched(const SchemaCheck &check)
    {
        QFETCH(const int, version);
        QFETCH(const bool, writeAheadLog);
        create(check, version, writeAheadLog);
    }

    static void verifyCurrent(const SchemaCheck &check, int originalVersion)
    {
        const QString suid = originalVersion == 1 ? QString() : u"123456789ABCDE"_s;
        const qlonglong protocolVersion = originalVersion == 1 ? 1 : 2;
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
        QCOMPARE(
            check.query(
                u"SELECT id, hex(esn), hex(suid), ip_address, availability, last_contact_time, "
                "num_discovery_attempts, last_discovery_attempt, protocol_version FROM subscribers"_s),
            (QList<QVariantList>{
                {7LL, u"0011AABB22CC33DD"_s, suid, 2130706437LL, 3LL, 1000LL, 2LL, 900LL, protocolVersion},
                {8LL, u"0011AABB22CC33DE"_s, suid, 2130706438LL, 1LL, 1001LL, 0LL, 901LL, protocolVersion}}));
        QCOMPARE(check.query(u"SELECT * FROM supported_services"_s), (QList<QVariantList>{{7LL, 1LL}}));
    }
};

QTEST_GUILESS_MAIN(TestSchemaLocks)
#include "tst_schemalocks.moc"
