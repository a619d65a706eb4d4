// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/checkfixture.h"
#include "tests/support/databaselock.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/serverdatabase.h"

#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>

using namespace Qt::StringLiterals;

namespace {

// Of the radio with this serial. rest: from the byte that tells whether it is pending.
QByteArray notice(quint8 serial, const char *rest)
{
    QByteArray bytes = QByteArray::fromHex("514d524104011600"
                                           "0000000000000000"
                                           "123456789abcde");
    bytes[15] = static_cast<char>(serial);
    return bytes + QByteArray::fromHex(rest);
}

// Stops the server, and has its ports.
struct OtherProgram
{
    explicit OtherProgram(TestServer &server)
    {
        server.stop();
        hasBothPorts = udp.bind(QHostAddress::LocalHost, server.registrationPort()) &&
                       tcp.listen(QHostAddress::LocalHost, server.applicationPort());
    }

    QUdpSocket udp;
    QTcpServer tcp;
    bool hasBothPorts = false;
};

} // namespace

// What quillmere-check says of a server in this process, whose event loop serves it meanwhile; and of other
// programs at its ports.
class TestCheckServer : public QObject, private CheckFixture
{
    Q_OBJECT

private slots:
    void init() { begin(); }

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

    // Of a radio that is gone, and of one that was in the table.
    void changesBehindTheTableAreNotCounted()
    {
        OtherProgram other(*server);
        QVERIFY(other.hasBothPorts);
        connect(&other.tcp, &QTcpServer::newConnection, this, [&other] {
            QTcpSocket *const peer = other.tcp.nextPendingConnection();
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
        // After the first look.
        server->log.whenWritten([this](const LogRecord &record) {
            if (record.message == u"Application disconnected from 127.0.0.1") {
                QTimer::singleShot(0, this, [this] { server->expireRetry(); });
            }
        });
        check();
        server->log.whenWritten({});
        QCOMPARE(exitCode, Ok);
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

    // Radio after radio, each behind the one before. A machine that pauses may make it look like an end.
    void tableThatDoesNotEnd()
    {
        OtherProgram other(*server);
        QVERIFY(other.hasBothPorts);
        QPointer<QTcpSocket> peer;
        quint8 serial = 0;
        QTimer next;
        connect(&next, &QTimer::timeout, this, [&] {
            if (peer) {
                peer->write(notice(++serial, "00"
                                             "0200007f"
                                             "03"
                                             "00"));
            }
        });
        connect(&other.tcp, &QTcpServer::newConnection, this, [&] {
            serial = 0;
            peer = other.tcp.nextPendingConnection();
            connect(peer, &QTcpSocket::disconnected, peer, &QObject::deleteLater);
        });
        next.start(20);
        const QString more = u" and more radios, 0 of them pending"_s;
        for (int tries = 0; tries < 10 && !of(u"server"_s).endsWith(more); ++tries) {
            check({u"--timeout"_s, u"1"_s});
        }
        QVERIFY2(of(u"server"_s).endsWith(more), qPrintable(lines.join(u'\n')));
        QCOMPARE(exitCode, Ok);
        QVERIFY(of(u"rows"_s).isEmpty()); // there are none, and that says nothing
    }

    void portsOfAnotherProgram()
    {
        OtherProgram other(*server);
        QVERIFY(other.hasBothPorts);
        connect(&other.tcp, &QTcpServer::newConnection, this,
                [&other] { other.tcp.nextPendingConnection()->write("SSH-2.0-OpenSSH\r\n"); });
        check();
        QCOMPARE(exitCode, Critical);
        QVERIFY2(of(u"server"_s)
                     .startsWith(u"critical server: TCP port %1 is another program's"_s.arg(
                         server->applicationPort())),
                 qPrintable(of(u"server"_s)));
    }
};

QTEST_GUILESS_MAIN(TestCheckServer)
#include "tst_checkserver.moc"
