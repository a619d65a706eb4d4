// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/integration/schemahistory.h"
#include "tests/support/failingtable.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QDir>
#include <QTest>

#include <sqlite3.h>

using namespace Qt::StringLiterals;

// What keeps the check from its work and may pass: the file is left as it is. What an interrupted replacement
// has left is replaced.
class TestSchemaFaults : public QObject
{
    Q_OBJECT

private slots:
    void fullDiskLeavesAllAsItIs_data() { addOldVersions(); }

    void fullDiskLeavesAllAsItIs()
    {
        QFETCH(const int, version);
        SchemaCheck check;
        createWithRows(check, version);
        const QByteArray content = check.fileContent();
        const QVariant pages = check.query(u"PRAGMA page_count"_s).value(0).value(0);
        runOnServerConnection(u"PRAGMA max_page_count = "_s % pages.toString());
        StatementTrace trace;
        QVERIFY(!check.run());
        verifyLeftAlone(check, trace, content);

        runOnServerConnection(u"PRAGMA max_page_count = 1000000"_s);
        verifyUpgraded(check);
    }

    void readOnlyConnectionLeavesAllAsItIs_data() { addOldVersions(); }

    void readOnlyConnectionLeavesAllAsItIs()
    {
        QFETCH(const int, version);
        SchemaCheck check;
        createWithRows(check, version);
        const QByteArray content = check.fileContent();
        runOnServerConnection(u"PRAGMA query_only = ON"_s);
        StatementTrace trace;
        QVERIFY(!check.run());
        verifyLeftAlone(check, trace, content);

        runOnServerConnection(u"PRAGMA query_only = OFF"_s);
        verifyUpgraded(check);
    }

    void readOnlyFileIsLeftAsItIs_data() { addOldVersions(); }

    void readOnlyFileIsLeftAsItIs()
    {
        QFETCH(const int, version);
        SchemaCheck check;
        createWithRows(check, version);
        const QByteArray content = check.fileContent();
        reopen(u"QSQLITE_OPEN_READONLY"_s);
        StatementTrace trace;
        QVERIFY(!check.run());
        verifyLeftAlone(check, trace, content);

        reopen(QString());
        verifyUpgraded(check);
    }

    void readOnlyFileOfTheCurrentVersionIsServed()
    {
        SchemaCheck check;
        createWithRows(check, 3);
        reopen(u"QSQLITE_OPEN_READONLY"_s);
        verifyUpgraded(check);
    }

    void journalThatCannotBeOpenedLeavesAllAsItIs_data() { addOldVersions(); }

    void journalThatCannotBeOpenedLeavesAllAsItIs()
    {
        QFETCH(const int, version);
        SchemaCheck check;
        createWithRows(check, version);
        const QByteArray content = check.fileContent();
        const QString journal = check.server.folder.databaseFile() + u"-journal"_s;
        QVERIFY(QDir().mkdir(journal));
        StatementTrace trace;
        QVERIFY(!check.run());
        verifyLeftAlone(check, trace, content);

        QVERIFY(QDir().rmdir(journal));
        verifyUpgraded(check);
    }

    void whatMayPassLeavesAllAsItIs_data()
    {
        QTest::addColumn<QByteArray>("table");
        QTest::addColumn<int>("resultCode");
        for (const QByteArray table : {"config", "subscribers"}) {
            const auto add = [&table](const char *cause, int resultCode) {
                QTest::addRow("%s: %s", table.constData(), cause) << table << resultCode;
            };
            add("no memory", SQLITE_NOMEM);
            add("read-only", SQLITE_READONLY);
            add("read fault", SQLITE_IOERR_READ);
            add("full disk", SQLITE_FULL);
            add("cannot open", SQLITE_CANTOPEN);
        }
    }

    void whatMayPassLeavesAllAsItIs()
    {
        QFETCH(const QByteArray, table);
        QFETCH(const int, resultCode);
        SchemaCheck check;
        check.create(3);
        check.query(u"DROP TABLE "_s % QString::fromLatin1(table));
        const FailingTable failing(check.server.folder.databaseFile(), table, resultCode, 1);
        const QByteArray content = check.fileContent();
        StatementTrace trace;
        QVERIFY(!check.run());
        QCOMPARE(failing.failuresLeft(), 0);
        verifyLeftAlone(check, trace, content);
    }

    void lockAtTheLookForTheRadioTableIsWaitedFor_data()
    {
        QTest::addColumn<int>("resultCode");
        QTest::newRow("busy") << SQLITE_BUSY;
        QTest::newRow("busy: recovery of a write-ahead log") << SQLITE_BUSY_RECOVERY;
        QTest::newRow("locked") << SQLITE_LOCKED;
        QTest::newRow("locks of a write-ahead log") << SQLITE_PROTOCOL;
    }

    void lockAtTheLookForTheRadioTableIsWaitedFor()
    {
        QFETCH(const int, resultCode);
        SchemaCheck check;
        check.create(3);
        check.query(u"DROP TABLE subscribers"_s);
        const FailingTable failing(check.server.folder.databaseFile(), "subscribers", resultCode, 2);
        const QByteArray content = check.fileContent();
        QVERIFY(check.run());
        QCOMPARE(failing.failuresLeft(), 0);
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QCOMPARE(check.fileContent(), content);
    }

    void whatIsRefusedForItsContentIsReplaced_data()
    {
        QTest::addColumn<int>("resultCode");
        QTest::newRow("plain error") << SQLITE_ERROR;
        QTest::newRow("constraint") << SQLITE_CONSTRAINT;
        QTest::newRow("corrupt") << SQLITE_CORRUPT;
        QTest::newRow("no database") << SQLITE_NOTADB;
    }

    void whatIsRefusedForItsContentIsReplaced()
    {
        QFETCH(const int, resultCode);
        SchemaCheck check;
        check.create(3);
        check.query(u"DROP TABLE subscribers"_s);
        const FailingTable failing(check.server.folder.databaseFile(), "subscribers", resultCode, 1);
        QVERIFY(check.run());
        QCOMPARE(failing.failuresLeft(), 0);
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
    }

    void transactionThatCannotBeginLeavesAllAsItIs()
    {
        SchemaCheck check;
        createWithRows(check, 3);
        const QByteArray content = check.fileContent();
        runOnServerConnection(u"BEGIN"_s);
        QVERIFY(!check.run());
        QCOMPARE(check.server.log.take(), (QList{replacingRecord(), failedScriptRecord()}));
        reopen(QString());
        QCOMPARE(check.fileContent(), content);
        verifyUpgraded(check);
    }

    void missingRadioTableIsReplaced_data()
    {
        addOldVersions();
        QTest::newRow("version 3") << 3;
    }

    void missingRadioTableIsReplaced()
    {
        QFETCH(const int, version);
        SchemaCheck check;
        check.create(version);
        check.query(u"DROP TABLE subscribers"_s);
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
    }

    void interruptedReplacementIsMadeGoodByTheNextStart_data()
    {
        QTest::addColumn<int>("version");
        QTest::addColumn<int>("statementsRun");
        const int all = static_cast<int>(schemaScript().size());
        QCOMPARE(all, 11);
        for (int version = 1; version <= 4; ++version) {
            for (int run = 1; run <= all; ++run) {
                QTest::addRow("version %d, %d statements", version, run) << version << run;
            }
        }
    }

    void interruptedReplacementIsMadeGoodByTheNextStart()
    {
        QFETCH(const int, version);
        QFETCH(const int, statementsRun);
        TestServer server;
        server.configure("minimumDiscoveryPeriod=2147483647\n");
        for (const QString &statement : schemaHistory(std::min(version, 3))) {
            server.query(statement);
        }
        server.query(u"UPDATE config SET database_version = "_s % QString::number(version));
        for (const QString &statement : schemaScript().mid(0, statementsRun)) {
            server.query(statement);
        }

        server->start();
        const bool complete = statementsRun == schemaScript().size();
        const QList<LogRecord> records = server.log.take();
        QCOMPARE(records.size(), complete ? 1 : 2);
        QVERIFY(complete || records.first() == replacingRecord());
        QVERIFY(records.last().message.contains(u"Service started"_s));
        const QMR::Esn esn{{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0xDD}};
        server->registerRadio(esn, 2, {}, QHostAddress(u"127.0.0.5"_s), 9, false, {1});
        QCOMPARE(server.log.takeMessages().size(), 1); // that it registered, and no error
        server.restart();
        QVERIFY(server->findRadio(esn));
    }

private:
    static void addOldVersions()
    {
        QTest::addColumn<int>("version");
        QTest::newRow("version 1") << 1;
        QTest::newRow("version 2") << 2;
    }

    static constexpr int Rows = 2000; // more pages once each has a further value

    static void createWithRows(const SchemaCheck &check, int version)
    {
        check.create(version);
        check.query(u"WITH RECURSIVE radio(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM radio WHERE i < %1) "
                    "INSERT INTO subscribers (id, esn, %2ip_address, availability, last_contact_time) "
                    "SELECT i, 'esn' || i, %3i, 3, 1000 FROM radio"_s.arg(
                        QString::number(Rows), version == 1 ? QString() : u"suid, "_s,
                        version == 1 ? QString() : u"'suid' || i, "_s));
        check.query(u"INSERT INTO supported_services VALUES (7, 1)"_s);
    }

    static void runOnServerConnection(const QString &statement)
    {
        QSqlQuery query;
        QVERIFY2(query.exec(statement), qPrintable(statement));
    }

    static void reopen(const QString &options)
    {
        QSqlDatabase connection =
            QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false);
        connection.close();
        connection.setConnectOptions(options);
        QVERIFY(connection.open());
    }

    static void verifyLeftAlone(const SchemaCheck &check, StatementTrace &trace, const QByteArray &content)
    {
        const QStringList statements = trace.take();
        QCOMPARE(statements.count(u"BEGIN"_s), 1);
        QCOMPARE(statements.last(), u"ROLLBACK"_s);
        QCOMPARE(check.server.log.records(), (QList{replacingRecord(), failedScriptRecord()}));
        QCOMPARE(check.fileContent(), content);
    }

    static void verifyUpgraded(SchemaCheck &check)
    {
        check.server.log.take();
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM subscribers"_s),
                 (QList<QVariantList>{{qlonglong{Rows}}}));
        QCOMPARE(check.query(u"SELECT * FROM supported_services"_s), (QList<QVariantList>{{7LL, 1LL}}));
    }
};

QTEST_GUILESS_MAIN(TestSchemaFaults)
#include "tst_schemafaults.moc"
