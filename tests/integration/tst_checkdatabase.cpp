// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/checkfixture.h"
#include "tests/support/databaselock.h"

#include <QDir>
#include <QFile>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <functional>

using namespace Qt::StringLiterals;

// What quillmere-check says of the database that a server has left, and whether the next start bears it out.
class TestCheckDatabase : public QObject, private CheckFixture
{
    Q_OBJECT

private slots:
    void init() { begin(); }

    void cleanup() { server.reset(); }

    void databaseIsLookedAt_data()
    {
        QTest::addColumn<QStringList>("statements");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const QStringList &statements, int state,
                            const QString &expected) {
            QTest::newRow(name) << statements << state << expected;
        };
        const QString replaced =
            u"%1: the server knows no way from its schema (version %2), and replaces it by an empty one when it starts"_s;
        const QString radio =
            u"INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time) VALUES (x'09', x'', 0, 1, 0)"_s;
        const QString toVersion2 = u"ALTER TABLE subscribers DROP COLUMN protocol_version"_s;
        row("version 2", {radio, toVersion2, u"UPDATE config SET database_version = 2"_s}, Ok,
            u"%1: 1 radios, schema version 2, brought to 3 when the server starts, whole, rollback journal"_s);
        row("version 1",
            {radio, toVersion2, u"DROP INDEX subscribers_suid_idx"_s,
             u"ALTER TABLE subscribers DROP COLUMN suid"_s, u"UPDATE config SET database_version = 1"_s},
            Ok,
            u"%1: 1 radios, schema version 1, brought to 3 when the server starts, whole, rollback journal"_s);
        row("version 2 with the columns of 3", {radio, u"UPDATE config SET database_version = 2"_s}, Critical,
            replaced.arg(u"%1"_s, u"2"_s));
        row("version 4", {radio, u"UPDATE config SET database_version = 4"_s}, Critical,
            replaced.arg(u"%1"_s, u"4"_s));
        row("no version", {radio, u"DROP TABLE config"_s}, Critical, replaced.arg(u"%1"_s, u"none"_s));
        row("no radios' table", {u"DROP TABLE subscribers"_s}, Critical, replaced.arg(u"%1"_s, u"3"_s));
        row("no services' table", {u"DROP TABLE supported_services"_s}, Critical,
            u"%1 lacks columns: radios are not stored"_s);
        row("a column less", {toVersion2}, Critical, u"%1 lacks columns: radios are not stored"_s);
        row("services of nobody", {u"INSERT INTO supported_services VALUES (7, 1)"_s}, Warning,
            u"%1: services of a radio that is not there"_s);
        row("write-ahead log", {u"PRAGMA journal_mode = WAL"_s}, Ok,
            u"%1: 0 radios, schema version 3, whole, write-ahead log"_s);
        row("an index that lacks a radio",
            {u"INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time) VALUES (x'09', x'', 0, 1, 0)"_s,
             u"PRAGMA writable_schema = ON"_s,
             u"UPDATE sqlite_schema SET sql = replace(sql, '(suid)', '(esn)') WHERE name = 'subscribers_suid_idx'"_s},
            Critical, u"%1 is damaged: row 1 missing from index subscribers_suid_idx"_s);
    }
    void databaseIsLookedAt()
    {
        QFETCH(const QStringList, statements);
        QFETCH(const int, state);
        QFETCH(const QString, expected);
        server->stop();
        {
            QSqlDatabase other = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"other"_s);
            other.setDatabaseName(server->folder.databaseFile());
            QVERIFY(other.open());
            for (const QString &statement : statements) {
                runSql(other, statement);
            }
            other.close();
        }
        QSqlDatabase::removeDatabase(u"other"_s);
        const QStringList before = QDir(server->folder.path()).entryList(QDir::Files);
        checkStopped();
        QCOMPARE(exitCode, state);
        QCOMPARE(of(u"database"_s).section(u"database: "_s, 1), expected.arg(server->folder.databaseFile()));
        QCOMPARE(QDir(server->folder.path()).entryList(QDir::Files), before);
        // The server does what has been said of it.
        server->object().start();
        QCOMPARE(server->log.count(u"Unable to update database.  Replacing database..."_s) > 0,
                 expected.contains(u"replaces it"_s));
    }

    // More of it than is copied at once.
    void largeDatabase()
    {
        server->query(
            u"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 60000) INSERT INTO "
            "subscribers (esn, suid, ip_address, availability, last_contact_time) SELECT "
            "cast(printf('%08d', i) AS BLOB), zeroblob(7), i, 1, 0 FROM n"_s);
        QVERIFY(QFileInfo(server->folder.databaseFile()).size() > 5'000'000);
        server->stop();
        checkStopped();
        QCOMPARE(exitCode, Ok);
        QCOMPARE(of(u"database"_s),
                 u"ok       database: %1: 60000 radios, schema version 3, whole, rollback journal"_s.arg(
                     server->folder.databaseFile()));
    }

    void databaseThatIsMissing()
    {
        server->stop();
        QVERIFY(QFile::remove(server->folder.databaseFile()));
        checkStopped();
        QCOMPARE(exitCode, Ok);
        QCOMPARE(of(u"database"_s),
                 u"ok       database: no %1 yet: the server makes it"_s.arg(server->folder.databaseFile()));
        QVERIFY(!QFile::exists(server->folder.databaseFile()));
    }

    void fileThatIsNoDatabase()
    {
        server->stop();
        QFile file(server->folder.databaseFile());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(4096, 'x'));
        file.close();
        checkStopped();
        QCOMPARE(exitCode, Critical);
        QCOMPARE(of(u"database"_s),
                 u"critical database: %1 is damaged: the server cannot start with it"_s.arg(
                     server->folder.databaseFile()));
        server->object().start();
        QCOMPARE(server->log.takeMessages().last(), u"Database schema: unable to continue"_s);
        QCOMPARE(file.size(), 4096);
    }

    void databaseThatIsNoFile_data()
    {
        using Make = std::function<bool(const QString &)>;
        QTest::addColumn<Make>("make");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("expected");
        QTest::newRow("a folder") << Make([](const QString &file) { return QDir().mkdir(file); }) << Critical
                                  << u"%1 is not a file"_s;
        QTest::newRow("nothing in it")
            << Make([](const QString &file) { return QFile(file).open(QIODevice::WriteOnly); }) << Ok
            << u"%1 is empty: the server makes it anew"_s;
        if (canLink()) {
            QTest::newRow("a link to nowhere")
                << Make([](const QString &file) { return QFile::link(file + u"-other"_s, file); }) << Critical
                << u"%1 is a link to nowhere"_s;
        }
    }
    void databaseThatIsNoFile()
    {
        using Make = std::function<bool(const QString &)>;
        QFETCH(const Make, make);
        QFETCH(const int, state);
        QFETCH(const QString, expected);
        server->stop();
        QVERIFY(QFile::remove(server->folder.databaseFile()));
        QVERIFY(make(server->folder.databaseFile()));
        checkStopped();
        QCOMPARE(exitCode, state);
        QCOMPARE(of(u"database"_s).section(u"database: "_s, 1), expected.arg(server->folder.databaseFile()));
    }

    // The log of a server that was ended: what is in it counts, and nothing is made beside it.
    void writeAheadLogThatIsLeft()
    {
        server->stop();
        const QString database = server->folder.databaseFile();
        {
            QSqlDatabase other = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"other"_s);
            other.setDatabaseName(database);
            QVERIFY(other.open());
            runSql(other, u"PRAGMA journal_mode = WAL"_s);
            runSql(other, u"INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time) "
                          "VALUES (x'09', x'', 0, 1, 0)"_s);
            QVERIFY(QFile::copy(database, database + u".kept"_s));
            QVERIFY(QFile::copy(database + u"-wal"_s, database + u".kept-wal"_s));
            other.close();
        }
        QSqlDatabase::removeDatabase(u"other"_s);
        QVERIFY(QFile::remove(database));
        QVERIFY(QFile::rename(database + u".kept"_s, database));
        QVERIFY(QFile::rename(database + u".kept-wal"_s, database + u"-wal"_s));
        const QStringList before = QDir(server->folder.path()).entryList(QDir::Files);
        checkStopped();
        QCOMPARE(exitCode, Ok);
        QCOMPARE(
            of(u"database"_s),
            u"ok       database: %1: 1 radios, schema version 3, whole, write-ahead log"_s.arg(database));
        QVERIFY(lines[0].endsWith(u"| rows=1"_s));
        QCOMPARE(QDir(server->folder.path()).entryList(QDir::Files), before);
    }

    void databaseThatIsLocked()
    {
        server->stop();
        {
            const DatabaseLock lock(server->folder.databaseFile(), DatabaseLock::Exclusive);
            checkStopped();
            QCOMPARE(exitCode, Warning);
            QCOMPARE(of(u"database"_s), u"warning  database: %1 is locked by another program"_s.arg(
                                            server->folder.databaseFile()));
        }
        {
            const DatabaseLock lock(server->folder.databaseFile(), DatabaseLock::Reserved);
            checkStopped();
            QCOMPARE(exitCode, Warning);
            QCOMPARE(of(u"database"_s),
                     u"warning  database: %1 is locked for writing"_s.arg(server->folder.databaseFile()));
        }
        DatabaseLock lock(server->folder.databaseFile(), DatabaseLock::Exclusive);
        lock.releaseAfter(std::chrono::milliseconds(100));
        checkStopped({u"--timeout"_s, u"30"_s});
        QCOMPARE(exitCode, Ok);
    }

private:
    static bool canLink()
    {
        const QTemporaryDir folder;
        const QString link = folder.filePath(u"link"_s);
        return QFile::link(folder.filePath(u"nowhere"_s), link) && QFileInfo(link).isSymLink() &&
               !QFileInfo::exists(link) && QFileInfo(link).fileName() == u"link";
    }
};

QTEST_GUILESS_MAIN(TestCheckDatabase)
#include "tst_checkdatabase.moc"
