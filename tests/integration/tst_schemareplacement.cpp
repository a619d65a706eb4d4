// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/integration/schemahistory.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTcpServer>
#include <QTest>
#include <QUdpSocket>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

// The script's resource, which Qt's macros name outside every namespace.
static void removeScript()
{
    Q_CLEANUP_RESOURCE(schema);
}

static void restoreScript()
{
    Q_INIT_RESOURCE(schema);
}

namespace {

// The script is missing while this lives.
class MissingScript
{
public:
    MissingScript() { removeScript(); }
    ~MissingScript() { restoreScript(); }
    Q_DISABLE_COPY_MOVE(MissingScript)
};

// Deliberately a success under identifier 0.
LogRecord missingScriptRecord()
{
    return RecordingLog::record(Scm::EventSuccess, u"Database error: unable to continue"_s, 0);
}

bool isIdle(const TestServer &server)
{
    QUdpSocket radioSide;
    QTcpServer applicationSide;
    return radioSide.bind(server.registrationPort(), QAbstractSocket::DefaultForPlatform) &&
           applicationSide.listen(QHostAddress::AnyIPv4, server.applicationPort()) &&
           !server->timerForTimeoutCheck().isActive() && !server->timerForDiscovery().isActive() &&
           !server->timerForDeadline().isActive() && server->radios().empty() &&
           server->dueForDiscovery().empty();
}

QList<QVariantList> schemaOf(const SchemaCheck &check)
{
    return check.query(u"SELECT name, sql FROM sqlite_master ORDER BY name"_s);
}

} // namespace

// Upgrades that fail, and databases that cannot even be replaced.
class TestSchemaReplacement : public QObject
{
    Q_OBJECT

private slots:
    void failingUpgradeStepIsRolledBackAndReplaced_data()
    {
        QTest::addColumn<int>("version");
        QTest::addColumn<QString>("obstacle");
        QTest::addColumn<int>("statementsRun"); // of the upgrade, the failing one included if it was prepared
        QTest::newRow("1: suid is there") << 1 << u"ALTER TABLE subscribers ADD COLUMN suid BLOB"_s << 0;
        QTest::newRow("1: index is there")
            << 1 << u"CREATE INDEX subscribers_suid_idx ON subscribers(availability)"_s << 1;
        QTest::newRow("1: protocol_version is there")
            << 1 << u"ALTER TABLE subscribers ADD COLUMN protocol_version INTEGER"_s << 2;
        QTest::newRow("1: rows cannot be updated")
            << 1 << u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers BEGIN SELECT RAISE(ABORT, 'no'); END"_s
            << 4;
        QTest::newRow("1: version cannot be updated")
            << 1 << u"CREATE TRIGGER stop BEFORE UPDATE ON config BEGIN SELECT RAISE(ABORT, 'no'); END"_s
            << 5;
        QTest::newRow("2: protocol_version is there")
            << 2 << u"ALTER TABLE subscribers ADD COLUMN protocol_version INTEGER"_s << 0;
        QTest::newRow("2: rows cannot be updated")
            << 2 << u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers BEGIN SELECT RAISE(ABORT, 'no'); END"_s
            << 2;
        QTest::newRow("2: version cannot be updated")
            << 2 << u"CREATE TRIGGER stop BEFORE UPDATE ON config BEGIN SELECT RAISE(ABORT, 'no'); END"_s
            << 3;
        QTest::newRow("2: the failing row ends the transaction")
            << 2
            << u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers BEGIN SELECT RAISE(ROLLBACK, 'no'); END"_s
            << 2;
    }

    void failingUpgradeStepIsRolledBackAndReplaced()
    {
        QFETCH(const int, version);
        QFETCH(const QString, obstacle);
        QFETCH(const int, statementsRun);
        SchemaCheck check;
        createWithRow(check, version);
        check.query(obstacle);
        const auto before = schemaOf(check);
        const auto rowsBefore = check.query(u"SELECT * FROM subscribers"_s);
        {
            // What the rollback leaves is seen when nothing can replace it.
            const MissingScript missing;
            StatementTrace trace;
            QVERIFY(!check.run());
            const QStringList statements = trace.take();
            QCOMPARE(statements.value(0), u"BEGIN"_s);
            QCOMPARE(statements.size(), 3 + statementsRun); // the SELECT and the ROLLBACK too
            QCOMPARE(statements.last(), u"ROLLBACK"_s);
        }
        QCOMPARE(check.server.log.take(), (QList{replacingRecord(), missingScriptRecord()}));
        QCOMPARE(schemaOf(check), before);
        QCOMPARE(check.query(u"SELECT * FROM subscribers"_s), rowsBefore);
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{version}}));

        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM subscribers"_s), (QList<QVariantList>{{0LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM supported_services"_s), (QList<QVariantList>{{0LL}}));
    }

    void failingCommitOfTheUpgradeIsAFailureToo()
    {
        SchemaCheck check;
        createWithRow(check, 2);
        const CommitHook hook(1);
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT count(*) FROM subscribers"_s), (QList<QVariantList>{{0LL}}));
    }

    void eachStatementOfTheScriptCommitsByItself()
    {
        SchemaCheck check;
        StatementTrace trace;
        const CommitHook hook;
        QVERIFY(check.run());
        const QStringList statements = trace.take();
        // The SELECT cannot be prepared in a new file. The white space at the script's end is no statement.
        QCOMPARE(statements.mid(0, 2), (QStringList{u"BEGIN"_s, u"ROLLBACK"_s}));
        QCOMPARE(statements.size(), 2 + 11);
        QCOMPARE(statements.value(2), u"DROP TABLE IF EXISTS subscribers"_s);
        QCOMPARE(statements.last(), u"INSERT INTO config(database_version) VALUES(3)"_s);
        QCOMPARE(statements.count(u"BEGIN"_s), 1);
        QCOMPARE(hook.commits(), 7); // three tables, three indexes, one row
    }

    void failingScriptStatementEndsTheReplacement_data()
    {
        QTest::addColumn<QStringList>("obstacles");
        QTest::addColumn<QStringList>("tables"); // what is there afterwards
        QTest::newRow("first: subscribers is a view")
            << QStringList{u"CREATE VIEW subscribers AS SELECT 1"_s,
                           u"CREATE TABLE config (database_version)"_s}
            << QStringList{u"config"_s, u"subscribers"_s};
        QTest::newRow("second: supported_services is a view")
            << QStringList{u"CREATE VIEW supported_services AS SELECT 1"_s,
                           u"CREATE TABLE subscribers (id)"_s}
            << QStringList{u"supported_services"_s};
        QTest::newRow("a table's name is an index's")
            << QStringList{u"CREATE TABLE other (id)"_s, u"CREATE INDEX supported_services ON other(id)"_s}
            << QStringList{u"other"_s, u"subscribers"_s, u"supported_services"_s};
        QTest::newRow("first index's name is a table's")
            << QStringList{u"CREATE TABLE subscribers_esn_idx (id)"_s}
            << QStringList{u"config"_s, u"subscribers"_s, u"subscribers_esn_idx"_s, u"supported_services"_s};
        QTest::newRow("second index's name is another table's index")
            << QStringList{u"CREATE TABLE other (id)"_s, u"CREATE INDEX subscribers_suid_idx ON other(id)"_s}
            << QStringList{u"config"_s,
                           u"other"_s,
                           u"subscribers"_s,
                           u"subscribers_esn_idx"_s,
                           u"subscribers_suid_idx"_s,
                           u"supported_services"_s};
    }

    void failingScriptStatementEndsTheReplacement()
    {
        QFETCH(const QStringList, obstacles);
        QFETCH(const QStringList, tables);
        SchemaCheck check;
        for (const QString &obstacle : obstacles) {
            check.query(obstacle);
        }
        QVERIFY(!check.run());
        QCOMPARE(check.server.log.take(), (QList{replacingRecord(), failedScriptRecord()}));
        // The statements already run stay run, those behind the failing one are not tried.
        QStringList names;
        for (const QVariantList &row :
             check.query(u"SELECT name FROM sqlite_master WHERE sql IS NOT NULL ORDER BY name"_s)) {
            names.append(row[0].toString());
        }
        QCOMPARE(names, tables);
    }

    void lockedDatabaseCannotBeReplaced()
    {
        SchemaCheck check;
        check.create(3);
        setBusyTimeout(0);
        {
            QSqlDatabase holder = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"holder"_s);
            holder.setDatabaseName(check.server.folder.databaseFile());
            QVERIFY(holder.open());
            QVERIFY(QSqlQuery(holder).exec(u"BEGIN EXCLUSIVE"_s));
            QVERIFY(!check.run(50ms));
        }
        QSqlDatabase::removeDatabase(u"holder"_s);
        QCOMPARE(check.server.log.take(), (QList{replacingRecord(), failedScriptRecord()}));
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
    }

    void brokenDatabaseLeavesTheServerIdle_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("text") << QByteArray("no database at all\n").repeated(100);
        QTest::newRow("a few bytes") << QByteArray("SQLite");
        QTest::newRow("zeros") << QByteArray(4096, '\0');
        QTest::newRow("header alone") << QByteArray("SQLite format 3\0", 16).append(QByteArray(1000, '\xFF'));
    }

    void brokenDatabaseLeavesTheServerIdle()
    {
        QFETCH(const QByteArray, content);
        TestServer server;
        writeDatabaseFile(server, content);
        server->start();
        QCOMPARE(server.log.take(), (QList{replacingRecord(), failedScriptRecord()}));
        QVERIFY(isIdle(server));
        QFile file(server.folder.databaseFile());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), content);
    }

    void missingScriptLeavesTheServerIdle()
    {
        TestServer server;
        {
            const MissingScript missing;
            server->start();
        }
        QCOMPARE(server.log.take(), (QList{replacingRecord(), missingScriptRecord()}));
        QVERIFY(isIdle(server));
        QCoreApplication::processEvents();
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QVERIFY(isIdle(server));
    }

    void idleServerStopsAndStartsAgain()
    {
        TestServer server;
        writeDatabaseFile(server, "no database at all");
        server->start();
        server.log.take();
        server.stop();
        QCOMPARE(server.log.take(), QList{RecordingLog::record(Scm::EventSuccess, u"Service stopped"_s)});
        QVERIFY(QFile::remove(server.folder.databaseFile()));
        server->start();
        QCOMPARE(server.log.records().size(), 2);
        QCOMPARE(server.log.records().first(), replacingRecord());
        QVERIFY(server.log.records().last().message.contains(u"Service started"_s));
        QVERIFY(!isIdle(server));
    }

    void missingScriptDoesNotMatterToACurrentDatabase()
    {
        SchemaCheck check;
        check.create(3);
        const MissingScript missing;
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
    }

private:
    static void createWithRow(const SchemaCheck &check, int version)
    {
        check.create(version);
        check.query(u"INSERT INTO subscribers (id, esn, "_s % (version == 1 ? u""_s : u"suid, "_s) %
                    u"ip_address, availability, last_contact_time) VALUES (7, x'0011AABB22CC33DD', "_s %
                    (version == 1 ? u""_s : u"x'123456789ABCDE', "_s) % u"2130706437, 3, 1000)"_s);
        check.query(u"INSERT INTO supported_services VALUES (7, 1)"_s);
    }

    static void writeDatabaseFile(const TestServer &server, const QByteArray &content)
    {
        QFile file(server.folder.databaseFile());
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("cannot write %s", qPrintable(file.fileName()));
        }
    }
};

QTEST_GUILESS_MAIN(TestSchemaReplacement)
#include "tst_schemareplacement.moc"
