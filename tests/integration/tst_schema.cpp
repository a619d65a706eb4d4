// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/integration/schemahistory.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QTest>

using namespace Qt::StringLiterals;

// The check of the schema in each state a database can be found in, as far as it leads to a usable one.
class TestSchema : public QObject
{
    Q_OBJECT

private slots:
    void newFileIsReplacedWithOneWarning()
    {
        SchemaCheck check;
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT database_version FROM config"_s), (QList<QVariantList>{{3LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM subscribers"_s), (QList<QVariantList>{{0LL}}));
    }

    void columnsAreDeclaredAsTheyMustBe()
    {
        SchemaCheck check;
        QVERIFY(check.run());
        const auto column = [](const char *name, const char *type, int notNull, const QVariant &initial,
                               int key) {
            return QVariantList{QString::fromLatin1(name), QString::fromLatin1(type), qlonglong{notNull},
                                initial, qlonglong{key}};
        };
        const QVariant none = QVariant(QString());
        QCOMPARE(check.query(u"SELECT name, type, \"notnull\", coalesce(dflt_value, ''), pk FROM "
                             "pragma_table_info('subscribers') ORDER BY cid"_s),
                 (QList<QVariantList>{column("id", "INTEGER", 0, none, 1), column("esn", "BLOB", 1, none, 0),
                                      column("suid", "BLOB", 1, none, 0),
                                      column("ip_address", "INTEGER", 1, none, 0),
                                      column("availability", "INTEGER", 1, none, 0),
                                      column("last_contact_time", "INTEGER", 1, none, 0),
                                      column("num_discovery_attempts", "INTEGER", 1, u"0"_s, 0),
                                      column("last_discovery_attempt", "INTEGER", 1, u"0"_s, 0),
                                      column("protocol_version", "INTEGER", 1, u"0"_s, 0)}));
    }

    void currentDatabaseSeesNothingButTheSelect()
    {
        SchemaCheck check;
        check.create(3);
        check.query(u"INSERT INTO subscribers VALUES (7, x'0011AABB22CC33DD', x'00', 1, 3, 2, 1, 9, 4)"_s);
        const auto before = check.query(u"SELECT * FROM subscribers"_s);
        const QByteArray content = check.fileContent();

        StatementTrace trace;
        QVERIFY(check.run());
        QCOMPARE(trace.take(),
                 (QStringList{u"BEGIN"_s, u"SELECT database_version FROM config"_s, u"COMMIT"_s}));
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QCOMPARE(check.query(u"SELECT * FROM subscribers"_s), before);
        QCOMPARE(check.fileContent(), content);
    }

    void onlyTheFirstVersionRowCounts()
    {
        SchemaCheck check;
        check.create(3);
        check.query(u"INSERT INTO config VALUES (4), (1)"_s);
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}, {4LL}, {1LL}}));
    }

    void unknownVersionIsReplaced_data()
    {
        QTest::addColumn<QStringList>("statements");
        const auto version = [](const QString &value) {
            return QStringList{u"UPDATE config SET database_version = "_s + value};
        };
        QTest::newRow("zero") << version(u"0"_s);
        QTest::newRow("four: a newer program's") << version(u"4"_s);
        QTest::newRow("negative") << version(u"-1"_s);
        QTest::newRow("negative three") << version(u"-3"_s);
        QTest::newRow("large") << version(u"30"_s);
        QTest::newRow("text") << version(u"'three'"_s);
        QTest::newRow("blob") << version(u"x'FF'"_s);
        QTest::newRow("no row") << QStringList{u"DELETE FROM config"_s};
        QTest::newRow("no table") << QStringList{u"DROP TABLE config"_s};
        QTest::newRow("null") << QStringList{u"DROP TABLE config"_s,
                                             u"CREATE TABLE config (database_version)"_s,
                                             u"INSERT INTO config VALUES (NULL)"_s};
        QTest::newRow("column of another name")
            << QStringList{u"DROP TABLE config"_s, u"CREATE TABLE config (version INTEGER)"_s,
                           u"INSERT INTO config VALUES (3)"_s};
        QTest::newRow("four before three")
            << QStringList{u"DELETE FROM config"_s, u"INSERT INTO config VALUES (4), (3)"_s};
    }

    void unknownVersionIsReplaced()
    {
        QFETCH(const QStringList, statements);
        SchemaCheck check;
        check.create(3);
        check.query(u"INSERT INTO subscribers VALUES (7, x'0011AABB22CC33DD', x'00', 1, 3, 2, 1, 9, 4)"_s);
        check.query(u"INSERT INTO supported_services VALUES (7, 1)"_s);
        for (const QString &statement : statements) {
            check.query(statement);
        }
        QVERIFY(check.run());
        QCOMPARE(check.server.log.take(), QList{replacingRecord()});
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT database_version FROM config"_s), (QList<QVariantList>{{3LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM subscribers"_s), (QList<QVariantList>{{0LL}}));
        QCOMPARE(check.query(u"SELECT count(*) FROM supported_services"_s), (QList<QVariantList>{{0LL}}));
    }

    void replacementLeavesForeignTablesAlone()
    {
        SchemaCheck check;
        check.query(u"CREATE TABLE notes (text)"_s);
        check.query(u"INSERT INTO notes VALUES ('mine')"_s);
        QVERIFY(check.run());
        QCOMPARE(check.query(u"SELECT * FROM notes"_s), (QList<QVariantList>{{u"mine"_s}}));
        QCOMPARE(check.query(u"SELECT database_version FROM config"_s), (QList<QVariantList>{{3LL}}));
    }

    void version1IsUpgraded()
    {
        SchemaCheck check;
        check.create(1);
        check.query(
            u"INSERT INTO subscribers VALUES (7, x'0011AABB22CC33DD', 2130706437, 3, 1000, 2, 900)"_s);
        check.query(
            u"INSERT INTO subscribers VALUES (9, x'0011AABB22CC33DE', 2130706438, 1, 1001, 0, 901)"_s);
        check.query(u"INSERT INTO supported_services VALUES (7, 1), (7, 3)"_s);

        StatementTrace trace;
        QVERIFY(check.run());
        // The stored version never becomes 2 in between.
        QCOMPARE(trace.take(),
                 (QStringList{u"BEGIN"_s, u"SELECT database_version FROM config"_s,
                              u"ALTER TABLE subscribers ADD COLUMN suid BLOB NOT NULL DEFAULT ''"_s,
                              u"CREATE INDEX subscribers_suid_idx ON subscribers(suid)"_s, addVersionColumn(),
                              deriveVersion(), u"UPDATE config SET database_version = 3"_s, u"COMMIT"_s}));
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
        QCOMPARE(check.query(
                     u"SELECT id, hex(esn), length(suid), ip_address, availability, last_contact_time, "
                     "num_discovery_attempts, last_discovery_attempt, protocol_version FROM subscribers"_s),
                 (QList<QVariantList>{
                     {7LL, u"0011AABB22CC33DD"_s, 0LL, 2130706437LL, 3LL, 1000LL, 2LL, 900LL, 1LL},
                     {9LL, u"0011AABB22CC33DE"_s, 0LL, 2130706438LL, 1LL, 1001LL, 0LL, 901LL, 1LL}}));
        QCOMPARE(check.query(u"SELECT * FROM supported_services"_s),
                 (QList<QVariantList>{{7LL, 1LL}, {7LL, 3LL}}));
    }

    void version2TakesTheProtocolVersionFromTheSuid_data()
    {
        QTest::addColumn<QString>("suid");
        QTest::addColumn<int>("protocolVersion");
        QTest::newRow("empty, as version 1 is upgraded") << u"''"_s << 1;
        QTest::newRow("minus one") << u"-1"_s << 1;
        QTest::newRow("seven zero bytes") << u"x'00000000000000'"_s << 1;
        QTest::newRow("a SUID") << u"x'123456789ABCDE'"_s << 2;
        QTest::newRow("one bit set") << u"x'00000000000001'"_s << 2;
        QTest::newRow("six zero bytes") << u"x'000000000000'"_s << 2;
        QTest::newRow("eight zero bytes") << u"x'0000000000000000'"_s << 2;
        QTest::newRow("minus one as text") << u"'-1'"_s << 2;
        QTest::newRow("zero") << u"0"_s << 2;
    }

    void version2TakesTheProtocolVersionFromTheSuid()
    {
        QFETCH(const QString, suid);
        QFETCH(const int, protocolVersion);
        SchemaCheck check;
        check.create(2);
        check.query(u"INSERT INTO subscribers VALUES (7, x'0011AABB22CC33DD', "_s % suid %
                    u", 2130706437, 3, 1000, 2, 900)"_s);
        const auto before = check.query(u"SELECT *, typeof(suid) FROM subscribers"_s);
        StatementTrace trace;
        QVERIFY(check.run());
        QCOMPARE(trace.take(),
                 (QStringList{u"BEGIN"_s, u"SELECT database_version FROM config"_s, addVersionColumn(),
                              deriveVersion(), u"UPDATE config SET database_version = 3"_s, u"COMMIT"_s}));
        QCOMPARE(check.server.log.take(), QList<LogRecord>());
        QCOMPARE(check.objects(), currentObjects());
        QCOMPARE(check.query(u"SELECT protocol_version FROM subscribers"_s),
                 (QList<QVariantList>{{protocolVersion}}));
        QCOMPARE(
            check.query(u"SELECT id, esn, suid, ip_address, availability, last_contact_time, "
                        "num_discovery_attempts, last_discovery_attempt, typeof(suid) FROM subscribers"_s),
            before);
        QCOMPARE(check.query(u"SELECT * FROM config"_s), (QList<QVariantList>{{3LL}}));
    }

    void oldDatabaseIsServedAfterTheUpgrade_data()
    {
        QTest::addColumn<int>("version");
        QTest::addColumn<QString>("suid");
        QTest::newRow("version 1") << 1 << QString();
        QTest::newRow("version 2") << 2 << u"x'123456789ABCDE', "_s;
    }

    void oldDatabaseIsServedAfterTheUpgrade()
    {
        QFETCH(const int, version);
        QFETCH(const QString, suid);
        TestServer server;
        for (const QString &statement : schemaHistory(version)) {
            server.query(statement);
        }
        server.query(u"INSERT INTO subscribers VALUES (7, x'0011AABB22CC33DD', "_s % suid %
                     u"2130706437, 2, "_s % QString::number(server.clock.seconds()) % u", 2, 900)"_s);
        server.start();
        QCOMPARE(server->radios().size(), size_t{1});
        const QMR::RadioEntry &radio = *server->radios().begin()->second;
        QCOMPARE(radio.esn.text(), u"0011AABB22CC33DD"_s);
        QCOMPARE(radio.protocolVersion, static_cast<quint32>(version));
        QCOMPARE(radio.suid.wacn(), version == 1 ? 0U : 0x12345U);
        server.restart();
        QCOMPARE(server->radios().size(), size_t{1});
    }
};

QTEST_GUILESS_MAIN(TestSchema)
#include "tst_schema.moc"
