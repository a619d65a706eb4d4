// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/checkfixture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTest>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

// What quillmere-check says of the configuration, and how it says what it has found.
class TestCheckTool : public QObject, private CheckFixture
{
    Q_OBJECT

private slots:
    void init() { begin(); }

    void cleanup() { server.reset(); }

    void configurationIsReadAsTheServerDoes_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("state");
        QTest::addColumn<QStringList>("expected");
        const auto row = [](const char *name, const char *content, int state, const QStringList &expected) {
            QTest::newRow(name) << QByteArray(content) << state << expected;
        };
        row("a comment and blanks", "; ours\n minimumDiscoveryPeriod = 30 \n", Ok,
            {u"%1: requests 30 s apart, UDP port 9361, TCP port 9361"_s});
        row("not a number", "minimumDiscoveryPeriod=half a minute\n", Critical,
            {u"minimumDiscoveryPeriod=half a minute is not a number from 0 to 4294967295, and counts as 0"_s,
             u"minimumDiscoveryPeriod is 0: radios are asked as fast as the server can"_s});
        row("below zero", "applicationPort=-1\n", Critical,
            {u"applicationPort=-1 is not a number from 0 to 4294967295, and counts as 0"_s,
             u"applicationPort is 0: the server gets a port that nobody knows"_s});
        row("two values", "radioRegistrationPort=9361,9362\n", Critical,
            {u"radioRegistrationPort=9361,9362 is not a number from 0 to 4294967295, and counts as 0"_s,
             u"radioRegistrationPort is 0: the server gets a port that nobody knows"_s});
        row("beyond 32 bits", "minimumDiscoveryPeriod=4294967301\n", Critical,
            {u"minimumDiscoveryPeriod=4294967301 is not a number from 0 to 4294967295, and counts as 5"_s});
        row("beyond 31 bits", "minimumDiscoveryPeriod=2147483648\n", Critical,
            {u"minimumDiscoveryPeriod=2147483648 is beyond 2147483647, and counts as none"_s});
        row("largest period", "minimumDiscoveryPeriod=2147483647\n", Ok,
            {u"%1: requests 2147483647 s apart, UDP port 9361, TCP port 9361"_s});
        row("no spacing", "minimumDiscoveryPeriod=0\n", Warning,
            {u"minimumDiscoveryPeriod is 0: radios are asked as fast as the server can"_s});
        row("beyond 16 bits", "radioRegistrationPort=65537\n", Critical,
            {u"radioRegistrationPort=65537 is beyond 65535: the server takes port 1"_s});
        row("largest ports", "radioRegistrationPort=65535\napplicationPort=65535\n", Ok,
            {u"%1: requests 30 s apart, UDP port 65535, TCP port 65535"_s});
        row("in a section", "[server]\napplicationPort=9000\n", Critical,
            {u"server/applicationPort stands in a section and is not read; applicationPort belongs above all sections"_s});
        row("in the section that is none", "[General]\napplicationPort=9000\n", Ok,
            {u"%1: requests 30 s apart, UDP port 9361, TCP port 9000"_s});
        row("unknown", "port=9000\n", Warning, {u"port is not a setting of the server's"_s});
        row("no value", "applicationPort\n", Critical, {u"%1: a line is not KEY=VALUE"_s});
    }
    void configurationIsReadAsTheServerDoes()
    {
        QFETCH(const QByteArray, content);
        QFETCH(const int, state);
        QFETCH(const QStringList, expected);
        server->stop();
        server->folder.writeConfiguration(content);
        checkStopped();
        constexpr std::array Names{"ok", "warning", "critical", "unknown"};
        int gravest = Ok;
        QStringList found;
        for (const QString &line : lines) {
            if (line.section(u' ', 1).trimmed().startsWith(u"configuration: "_s)) {
                found += line.section(u"configuration: "_s, 1);
                for (int i = Ok; i <= Critical; ++i) {
                    gravest = line.startsWith(QLatin1String(Names[static_cast<size_t>(i)]))
                                  ? std::max(gravest, i)
                                  : gravest;
                }
            }
        }
        QStringList texts = expected;
        texts.replaceInStrings(u"%1"_s, server->folder.path() + u"/qmr.cfg"_s);
        QCOMPARE(found, texts);
        QCOMPARE(gravest, state);
    }

    // Where case tells keys apart the server does not read it.
    void keyInAnotherCase()
    {
        server->stop();
        server->folder.writeConfiguration("ApplicationPort=9000\n");
        checkStopped();
        const bool isRead = of(u"configuration"_s).endsWith(u"TCP port 9000"_s);
        if (!isRead) {
            QCOMPARE(exitCode, Critical);
            QCOMPARE(
                of(u"configuration"_s),
                u"critical configuration: ApplicationPort is not read; the setting is written applicationPort"_s);
        }
        QSettings settings(server->folder.path() + u"/qmr.cfg"_s, QSettings::IniFormat);
        QCOMPARE(isRead, settings.contains(u"applicationPort"_s));
    }

    void folderThatIsAFile()
    {
        run({u"--stopped"_s, u"--folder"_s, server->folder.databaseFile()});
        QCOMPARE(exitCode, Critical);
        QCOMPARE(of(u"folder"_s),
                 u"critical folder: %1 is not a folder"_s.arg(server->folder.databaseFile()));
    }

    void firstLineCountsTheOthers()
    {
        server->stop();
        server->folder.writeConfiguration("minimumDiscoveryPeriod=x\n");
        checkStopped();
        QVERIFY2(lines[0].endsWith(u" and counts as 0 (and 1 more) | rows=0"_s), qPrintable(lines[0]));
        server->folder.writeConfiguration("minimumDiscoveryPeriod=0\n");
        checkStopped();
        QVERIFY2(lines[0].endsWith(u" as fast as the server can | rows=0"_s), qPrintable(lines[0]));
    }

    // Each finding is a line, and the first one holds figures behind its sign alone.
    void textOfOthersBreaksNoLine()
    {
        server->stop();
        server->folder.writeConfiguration("applicationPort=\"a\\nb | c=1\"\n");
        checkStopped();
        QVERIFY2(lines[0].startsWith(
                     u"QUILLMERE CRITICAL - configuration: applicationPort=a b / c=1 is not a number"_s),
                 qPrintable(lines[0]));
        QCOMPARE(lines[0].count(u'|'), 1);
        QVERIFY(lines[1].startsWith(u"critical configuration: applicationPort=a b / c=1 is not a number"_s));
    }

    void objectHoldsTheSame()
    {
        check({u"--json"_s});
        QCOMPARE(lines.size(), 1);
        const QJsonObject object = QJsonDocument::fromJson(lines[0].toUtf8()).object();
        QCOMPARE(object[u"state"_s].toString(), u"ok"_s);
        QCOMPARE(object[u"radios"_s].toInt(-1), 0);
        QCOMPARE(object[u"pending"_s].toInt(-1), 0);
        QCOMPARE(object[u"rows"_s].toInt(-1), 0);
        const QJsonArray findings = object[u"findings"_s].toArray();
        const QJsonObject last = findings.last().toObject();
        QCOMPARE(last[u"subject"_s].toString(), u"server"_s);
        QCOMPARE(last[u"state"_s].toString(), u"ok"_s);
        QVERIFY(last[u"text"_s].toString().startsWith(u"it runs"_s));
    }

    void wrongUsageIsUnknown_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("error");
        QTest::newRow("unknown option") << QStringList{u"--fast"_s} << u"Unknown option 'fast'."_s;
        QTest::newRow("word") << QStringList{u"now"_s} << u"unexpected argument 'now'"_s;
        QTest::newRow("timeout") << QStringList{u"--timeout"_s, u"soon"_s}
                                 << u"--timeout: 'soon' is not a number of seconds (0.001 to 31536000)"_s;
        QTest::newRow("no folder") << QStringList{u"--folder"_s, QString()} << u"--folder: it is empty"_s;
        QTest::newRow("no account") << QStringList{u"--account"_s, QString()} << u"--account: it is empty"_s;
    }
    void wrongUsageIsUnknown()
    {
        QFETCH(const QStringList, arguments);
        QFETCH(const QString, error);
        run(arguments);
        QCOMPARE(exitCode, Unknown);
        QCOMPARE(lines, QStringList{QString()});
        QCOMPARE(errors, u"quillmere-check: %1\nquillmere-check: try --help\n"_s.arg(error));
    }

    void helpAndVersionArePrinted()
    {
        run({u"--help"_s});
        QCOMPARE(exitCode, 0);
        QVERIFY(lines[0].startsWith(u"Usage: quillmere-check"_s));
        run({u"--version"_s});
        QCOMPARE(exitCode, 0);
        QCOMPARE(lines[0], u"quillmere-check 1.38.3.27"_s);
    }
};

QTEST_GUILESS_MAIN(TestCheckTool)
#include "tst_checktool.moc"
