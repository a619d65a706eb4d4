// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/databaselock.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QSqlDatabase>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int Ok = 0;
constexpr int Warning = 1;
constexpr int Critical = 2;
constexpr int Unknown = 3;

} // namespace

// The built program against a server in this process, whose event loop serves it meanwhile; or against what a
// server has left.
class TestCheckTool : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
    }

    void cleanup() { server.reset(); }

    void allIsWell()
    {
        ScriptedRadio radio(server->registrationPort(), 1, u"127.0.0.2"_s);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        ScriptedRadio awaiting(server->registrationPort(), 2, u"127.0.0.3"_s);
        awaiting.registersPending();
        QVERIFY(awaiting.isAcknowledged());
        server->log.take();
        check();
        QCOMPARE(exitCode, Ok);
        QCOMPARE(lines[0], u"QUILLMERE OK - all is well | radios=2 pending=1 rows=1"_s);
        QCOMPARE(of(u"configuration"_s),
                 u"ok       configuration: %1: requests 2147483647 s apart, UDP port %2, TCP port %3"_s.arg(
                     server->folder.path() + u"/qmr.cfg"_s, QString::number(server->registrationPort()),
                     QString::number(server->applicationPort())));
        QCOMPARE(of(u"driver"_s), u"ok       driver: Qt's driver for SQLite is there"_s);
        QCOMPARE(of(u"database"_s),
                 u"ok       database: %1: 1 radios, schema version 3, whole, rollback journal"_s.arg(
                     server->folder.databaseFile()));
        QCOMPARE(
            of(u"server"_s),
            u"ok       server: it runs, listens at UDP port %1, and tells TCP port %2 of 2 radios, 1 of them pending"_s
                .arg(QString::number(server->registrationPort()),
                     QString::number(server->applicationPort())));
        // It has been an application, and nothing else.
        QTRY_COMPARE(server->log.records().size(), 2);
        QCOMPARE(server->log.takeMessages(), (QStringList{u"Application connected from 127.0.0.1"_s,
                                                          u"Application disconnected from 127.0.0.1"_s}));
        QCOMPARE((*server)->radios().size(), size_t{2});
    }

    void radioThatIsGoneIsNotCounted()
    {
        ScriptedRadio radio(server->registrationPort(), 1, u"127.0.0.2"_s);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        radio.deregisters();
        QTRY_VERIFY((*server)->radios().empty());
        check();
        QCOMPARE(lines[0], u"QUILLMERE OK - all is well | radios=0 pending=0 rows=0"_s);
    }

    // Of the changes that follow the table at once.
    void changesBehindTheTableAreNotCounted()
    {
        server->stop();
        QUdpSocket udp;
        QVERIFY(udp.bind(QHostAddress::LocalHost, server->registrationPort()));
        QTcpServer tcp;
        QVERIFY(tcp.listen(QHostAddress::LocalHost, server->applicationPort()));
        connect(&tcp, &QTcpServer::newConnection, this, [&tcp] {
            QTcpSocket *const peer = tcp.nextPendingConnection();
            const QByteArray front = QByteArray::fromHex("514d524104011600"
                                                         "0000000000000000"
                                                         "123456789abcde");
            const auto notice = [&front](char serial, const char *rest) -> QByteArray {
                return QByteArray(front).replace(15, 1, &serial, 1) + QByteArray::fromHex(rest);
            };
            peer->write(notice(1, "00"
                                  "0200007f"
                                  "03"
                                  "00") +
                        notice(2, "01"
                                  "0300007f"
                                  "03"
                                  "00") +
                        notice(3, "00"
                                  "00000000"
                                  "00"
                                  "00") +
                        notice(2, "01"
                                  "0300007f"
                                  "03"
                                  "00"));
            connect(peer, &QTcpSocket::disconnected, peer, &QObject::deleteLater);
        });
        check();
        QVERIFY2(of(u"server"_s).endsWith(u" of 2 radios, 1 of them pending"_s), qPrintable(of(u"server"_s)));
    }

    void rowsAndRadiosAreCompared_data()
    {
        QTest::addColumn<QString>("statement");
        QTest::addColumn<QString>("expected");
        QTest::newRow("a row too few") << u"DELETE FROM subscribers"_s << u"0"_s;
        QTest::newRow("a row too many") << u"INSERT INTO subscribers (esn, suid, ip_address, availability, "
                                           "last_contact_time) VALUES (x'09', x'', 0, 1, 0)"_s
                                        << u"2"_s;
    }
    void rowsAndRadiosAreCompared()
    {
        QFETCH(const QString, statement);
        QFETCH(const QString, expected);
        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        server->query(statement);
        check();
        QCOMPARE(exitCode, Warning);
        QCOMPARE(of(u"rows"_s),
                 u"warning  rows: the server knows 1 radios, 0 of them pending, and the database has "_s +
                     expected);
        QVERIFY(lines[0].startsWith(u"QUILLMERE WARNING - rows: the server knows 1 radios"_s));
    }

    // The cause is over, and the server makes good what it owes.
    void rowThatIsOwed()
    {
        setBusyTimeout(0);
        {
            const DatabaseLock lock(server->folder.databaseFile(), DatabaseLock::Reserved);
            (*server)->registerRadio({{1}}, 3, {}, QHostAddress(0x7F000002U), 9, false, {});
        }
        QVERIFY(!(*server)->writeGroup()->owed().isEmpty());
        check();
        QCOMPARE(lines[0], u"QUILLMERE OK - all is well | radios=1 pending=0 rows=1"_s);
        QVERIFY((*server)->writeGroup()->owed().isEmpty());
    }

    // Radios come and go all the while, and each is stored.
    void serverThatIsBusy()
    {
        quint32 number = 0;
        QTimer next;
        connect(&next, &QTimer::timeout, this, [&] {
            ++number;
            const auto at = [](quint32 radio) { return QHostAddress(0x7F010000U + radio); };
            const QMR::Esn esn{
                {0, 0, 0, 0, 0, 0, static_cast<quint8>(number * 37), static_cast<quint8>(number)}};
            (*server)->registerRadio(esn, 3, {}, at(number), 9, false, {});
            if (number % 3 == 0) {
                (*server)->deregisterRadioByAddress(at(number - 1));
            }
        });
        next.start(10);
        for (int i = 0; i < 3; ++i) {
            check();
            QVERIFY2(exitCode == Ok, qPrintable(lines.join(u'\n')));
        }
        QVERIFY(number > 10);
    }

    void serverThatDoesNotRun()
    {
        server->stop();
        check();
        QCOMPARE(exitCode, Critical);
        const QString ports = u"UDP port %1 and TCP port %2 are free"_s.arg(
            QString::number(server->registrationPort()), QString::number(server->applicationPort()));
        QCOMPARE(lines[0], u"QUILLMERE CRITICAL - server: it does not run; %1 | rows=0"_s.arg(ports));
        checkStopped();
        QCOMPARE(exitCode, Ok);
        QCOMPARE(of(u"server"_s), u"ok       server: it does not run; "_s + ports);
    }

    // Whatever address it is taken at, the server could not have it.
    void portThatIsTaken_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("all") << u"0.0.0.0"_s;
        QTest::newRow("all of IPv6") << u"::"_s;
        QTest::newRow("this host") << u"127.0.0.1"_s;
        QTest::newRow("another of this host") << u"127.0.0.3"_s;
    }
    void portThatIsTaken()
    {
        QFETCH(const QString, address);
        server->stop();
        const QString taken = u"critical server: it does not run, and %1 taken by another program"_s;
        const QString udpText = u"UDP port %1"_s.arg(server->registrationPort());
        const QString tcpText = u"TCP port %1"_s.arg(server->applicationPort());
        QUdpSocket udp;
        QVERIFY(udp.bind(QHostAddress(address), server->registrationPort()));
        checkStopped();
        QCOMPARE(exitCode, Critical);
        QCOMPARE(of(u"server"_s), taken.arg(udpText + u" is"_s));
        if (address == u"127.0.0.3") {
            QTcpServer tcp;
            QVERIFY(tcp.listen(QHostAddress(address), server->applicationPort()));
            checkStopped();
            QCOMPARE(of(u"server"_s), taken.arg(udpText + u" and "_s + tcpText + u" are"_s));
            udp.close();
            checkStopped();
            QCOMPARE(of(u"server"_s), taken.arg(tcpText + u" is"_s));
        }
    }

    // A datagram socket keeps the server from the port though it is connected, a connection does not.
    void portOfAConnectedSocket()
    {
        server->stop();
        QTcpServer peer;
        QVERIFY(peer.listen(QHostAddress::LocalHost));
        QTcpSocket connection;
        QVERIFY(connection.bind(QHostAddress::LocalHost, server->applicationPort()));
        connection.connectToHost(QHostAddress::LocalHost, peer.serverPort());
        QTRY_COMPARE(connection.state(), QAbstractSocket::ConnectedState);
        checkStopped();
        QCOMPARE(exitCode, Ok);
        QUdpSocket udp;
        QVERIFY(udp.bind(QHostAddress::LocalHost, server->registrationPort()));
        udp.connectToHost(QHostAddress::LocalHost, 9);
        QTRY_COMPARE(udp.state(), QAbstractSocket::ConnectedState);
        checkStopped();
        QCOMPARE(of(u"server"_s),
                 u"critical server: it does not run, and UDP port %1 is taken by another program"_s.arg(
                     server->registrationPort()));
    }

    void registrationPortAlone()
    {
        server->stop();
        QUdpSocket squatter;
        QVERIFY(
            squatter.bind(QHostAddress::Any, server->registrationPort(), QAbstractSocket::DontShareAddress));
        server->object().start();
        QCOMPARE(server->log.count(u"Unable to bind registration socket"_s), 1);
        squatter.close();
        check();
        QCOMPARE(exitCode, Critical);
        QCOMPARE(
            of(u"server"_s),
            u"critical server: nobody listens to radios at UDP port %1; TCP port %2 is served"_s.arg(
                QString::number(server->registrationPort()), QString::number(server->applicationPort())));
    }

    // Its system takes the connection for it.
    void serverThatHangs()
    {
        server->stop();
        QTcpServer hanging; // no one takes what is said to it
        QVERIFY(hanging.listen(QHostAddress::LocalHost, server->applicationPort()));
        hanging.pauseAccepting();
        check({u"--timeout"_s, u"0.5"_s});
        QCOMPARE(exitCode, Critical);
        QCOMPARE(of(u"server"_s), u"critical server: TCP port %1 takes connections and does not answer"_s.arg(
                                      server->applicationPort()));
    }

    // The server's end of the table is not in sight as long as that goes on.
    void tableThatDoesNotEnd()
    {
        server->stop();
        QTcpServer endless;
        QVERIFY(endless.listen(QHostAddress::LocalHost, server->applicationPort()));
        std::unique_ptr<QTcpSocket> peer;
        quint8 serial = 0;
        QTimer next;
        connect(&next, &QTimer::timeout, this, [&] {
            if (peer) {
                QByteArray notice = QByteArray::fromHex("514d524104011600"
                                                        "0011aabb22cc3300"
                                                        "123456789abcde"
                                                        "00"
                                                        "0200007f"
                                                        "03"
                                                        "00");
                notice[15] = static_cast<char>(++serial);
                peer->write(notice);
            }
        });
        connect(&endless, &QTcpServer::newConnection, this, [&] {
            peer.reset(endless.nextPendingConnection());
            connect(peer.get(), &QTcpSocket::disconnected, this, [&] { peer.release()->deleteLater(); });
        });
        next.start(20);
        check({u"--timeout"_s, u"1"_s});
        QVERIFY2(of(u"server"_s).contains(u" and more radios, 0 of them pending"_s) ||
                     of(u"server"_s).contains(u"nobody listens to radios"_s),
                 qPrintable(of(u"server"_s)));
        QVERIFY(of(u"rows"_s).isEmpty());
    }

    void portsOfAnotherProgram()
    {
        server->stop();
        QUdpSocket udp;
        QVERIFY(udp.bind(QHostAddress::LocalHost, server->registrationPort()));
        QTcpServer tcp;
        QVERIFY(tcp.listen(QHostAddress::LocalHost, server->applicationPort()));
        connect(&tcp, &QTcpServer::newConnection, this,
                [&tcp] { tcp.nextPendingConnection()->write("SSH-2.0-OpenSSH\r\n"); });
        check();
        QCOMPARE(exitCode, Critical);
        QVERIFY2(of(u"server"_s)
                     .startsWith(u"critical server: TCP port %1 is another program's"_s.arg(
                         server->applicationPort())),
                 qPrintable(of(u"server"_s)));
    }

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

    void folderThatIsAFile()
    {
        run({u"--stopped"_s, u"--folder"_s, server->folder.databaseFile()});
        QCOMPARE(exitCode, Critical);
        QCOMPARE(of(u"folder"_s),
                 u"critical folder: %1 is not a folder"_s.arg(server->folder.databaseFile()));
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

private:
    static bool canLink()
    {
        const QTemporaryDir folder;
        const QString link = folder.filePath(u"link"_s);
        return QFile::link(folder.filePath(u"nowhere"_s), link) && QFileInfo(link).isSymLink() &&
               !QFileInfo::exists(link) && QFileInfo(link).fileName() == u"link";
    }

    void run(const QStringList &arguments)
    {
        QProcess tool;
        tool.start(QCoreApplication::applicationDirPath() + u"/quillmere-check"_s, arguments);
        const bool ended = QTest::qWaitFor([&tool] { return tool.state() == QProcess::NotRunning; }, 60'000);
        exitCode = ended && tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1;
        lines = QString::fromUtf8(tool.readAllStandardOutput()).remove(u'\r').trimmed().split(u'\n');
        errors = QString::fromUtf8(tool.readAllStandardError()).remove(u'\r');
    }
    void check(const QStringList &more = {})
    {
        run(QStringList{u"--folder"_s, server->folder.path()} + more);
    }
    void checkStopped(const QStringList &more = {}) { check(QStringList(u"--stopped"_s) + more); }

    // The first line of what has been found about it.
    QString of(const QString &subject) const
    {
        for (const QString &line : lines.mid(1)) {
            if (line.section(u' ', 1).trimmed().startsWith(subject + u':')) {
                return line;
            }
        }
        return {};
    }

    std::unique_ptr<TestServer> server;
    int exitCode = -1;
    QStringList lines;
    QString errors;
};

QTEST_GUILESS_MAIN(TestCheckTool)
#include "tst_checktool.moc"
