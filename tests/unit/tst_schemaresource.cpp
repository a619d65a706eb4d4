// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include <QFile>
#include <QTest>

using namespace Qt::StringLiterals;

// The schema script as it is compiled in. It is split and run at its line ends, so each byte counts.
class TestSchemaResource : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QFile file(u":/Quillmere.schema"_s);
        QVERIFY(file.open(QIODevice::ReadOnly));
        script = file.readAll();
    }

    void hasItsExactSize() { QCOMPARE(script.size(), 1040); }

    void isPlainAscii()
    {
        for (const char byte : script) {
            const bool printable = byte >= ' ' && byte <= '~';
            QVERIFY(printable || byte == '\t' || byte == '\r' || byte == '\n');
        }
    }

    void everyLineEndsWithCarriageReturnAndLineFeed()
    {
        QCOMPARE(script.count('\n'), 34);
        QCOMPARE(script.count('\r'), 34);
        QCOMPARE(script.count("\r\n"), 34);
    }

    void endsWithOneEmptyLine()
    {
        QVERIFY(script.endsWith(";\r\n\r\n"));
        QVERIFY(!script.endsWith("\r\n\r\n\r\n"));
    }

    void isIndentedWithOneTab()
    {
        for (const QByteArray &line : script.split('\n')) {
            QVERIFY2(!line.startsWith(' '), line.constData());
            QVERIFY2(!line.startsWith("\t\t"), line.constData());
            QCOMPARE(line.lastIndexOf('\t'), line.startsWith('\t') ? 0 : -1);
        }
    }

    void holdsTheStatementsInOrder()
    {
        const QList<QByteArray> expected{
            "DROP TABLE IF EXISTS subscribers",
            "DROP TABLE IF EXISTS supported_services",
            "DROP TABLE IF EXISTS config",
            "PRAGMA foreign_keys = ON",
            "CREATE TABLE IF NOT EXISTS subscribers (\r\n"
            "\tid INTEGER PRIMARY KEY,\r\n"
            "\tesn BLOB UNIQUE NOT NULL,\r\n"
            "\tsuid BLOB NOT NULL,\r\n"
            "\tip_address INTEGER NOT NULL,\r\n"
            "\tavailability INTEGER NOT NULL,\r\n"
            "\tlast_contact_time INTEGER NOT NULL,\r\n"
            "\tnum_discovery_attempts INTEGER NOT NULL DEFAULT 0,\r\n"
            "\tlast_discovery_attempt INTEGER NOT NULL DEFAULT 0,\r\n"
            "\tprotocol_version INTEGER NOT NULL DEFAULT 0\r\n"
            ")",
            "CREATE TABLE IF NOT EXISTS supported_services (\r\n"
            "\tsubscriber_id INTEGER NOT NULL,\r\n"
            "\tservice INTEGER NOT NULL,\r\n"
            "\tFOREIGN KEY(subscriber_id) REFERENCES subscribers(id) ON DELETE CASCADE\r\n"
            ")",
            "CREATE TABLE IF NOT EXISTS config (\r\n"
            "\tdatabase_version INTEGER NOT NULL\r\n"
            ")",
            "CREATE INDEX subscribers_esn_idx ON subscribers(esn)",
            "CREATE INDEX subscribers_suid_idx ON subscribers(suid)",
            "CREATE INDEX supported_services_subscriber_id_idx ON supported_services(subscriber_id)",
            "INSERT INTO config(database_version) VALUES(3)",
        };
        QList<QByteArray> statements;
        qsizetype begin = 0;
        for (qsizetype end = script.indexOf(";\r\n"); end >= 0; end = script.indexOf(";\r\n", begin)) {
            statements.append(script.sliced(begin, end - begin).trimmed());
            begin = end + 3;
        }
        QCOMPARE(statements, expected);
        // What the split leaves is one piece of white space.
        QCOMPARE(script.sliced(begin), QByteArray("\r\n"));
    }

private:
    QByteArray script;
};

QTEST_APPLESS_MAIN(TestSchemaResource)
#include "tst_schemaresource.moc"
