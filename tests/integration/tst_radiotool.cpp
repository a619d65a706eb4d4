// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radioprocess.h"
#include "tests/support/testserver.h"

#include <QJsonObject>
#include <QTest>
#include <QUdpSocket>

using namespace Qt::StringLiterals;

namespace {

const auto OneRadio = u" --esn 0011AABB22CC33DD --suid 12345.678.9ABCDE --from 127.0.0.2"_s;

} // namespace

class TestRadioTool : public QObject
{
    Q_OBJECT

private slots:
    void registersOneRadioAndPrintsWhatItGets()
    {
        TestServer server;
        server.start();
        RadioProcess tool(u"register --services 1,3"_s + OneRadio + serverOption(server.registrationPort()));
        QCOMPARE(tool.exitCode(), 0);
        QCOMPARE(
            server.log.takeMessages(),
            QStringList{u"Radio 0011AABB22CC33DD with SUID {WACN: 0x12345, System: 0x678, Unit: 0x9ABCDE} "
                        "registered with address 127.0.0.2"_s});
        QCOMPARE(server.query(u"SELECT service FROM supported_services"_s),
                 (QList<QVariantList>{{1LL}, {3LL}}));
        const QString output = tool.output();
        QVERIFY2(
            output.contains(u"sent: registration of 0011AABB22CC33DD with SUID 12345.678.9ABCDE, services "
                            "1,3, from 127.0.0.2:"),
            qPrintable(output));
        QVERIFY(
            output.contains(u"received: acknowledgement for 0011AABB22CC33DD, protocol 3, from 127.0.0.1:"));
        QVERIFY(output.contains(u"summary: sent 1, acknowledged 1, lost 0\nlatency: p50 "));
        QCOMPARE(tool.errors(), QString()); // no progress where there is no terminal
    }

    void eachKindOfRegistrationReachesTheServer_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("esn");
        QTest::addColumn<int>("protocol");
        QTest::addColumn<bool>("pending");
        QTest::newRow("basic") << u"--basic --esn 00:11:AA:BB:22:CC:33:DD"_s << u"0011AABB22CC33DD"_s << 1
                               << false;
        QTest::newRow("version 2") << u"--esn 0011AABB22CC33DD --suid 1.2.3 --protocol 2"_s
                                   << u"0011AABB22CC33DD"_s << 2 << false;
        QTest::newRow("pending") << u"--esn 0011AABB22CC33DD --suid 1.2.3 --pending"_s
                                 << u"0011AABB22CC33DD"_s << 3 << true;
        QTest::newRow("no ESN") << u"--suid 01234.567.89ABCD"_s << u"F10123456789ABCD"_s << 3 << false;
    }
    void eachKindOfRegistrationReachesTheServer()
    {
        QFETCH(QString, options);
        QFETCH(QString, esn);
        QFETCH(int, protocol);
        QFETCH(bool, pending);
        TestServer server;
        server.start();
        RadioProcess tool(u"register --json --from 127.0.0.3 "_s + options +
                          serverOption(server.registrationPort()));
        QCOMPARE(tool.exitCode(), 0);
        QCOMPARE(server->radios().size(), size_t{1});
        const auto &radio = *server->radios().begin()->second;
        QCOMPARE(radio.esn.text(), esn);
        QCOMPARE(radio.protocolVersion, static_cast<quint32>(protocol));
        QCOMPARE(radio.pendingAddress.toString(), pending ? u"127.0.0.3"_s : QString());
        QCOMPARE(radio.address.toString(), pending ? QString() : u"127.0.0.3"_s);
        const QList<QJsonObject> objects = tool.objects();
        QCOMPARE(objects.size(), 3);
        QCOMPARE(objects[0][u"event"_s], u"registration"_s);
        QCOMPARE(objects[1][u"event"_s], u"acknowledgement"_s);
        QCOMPARE(objects[1][u"esn"_s], esn);
        QCOMPARE(objects[1][u"protocol"_s], protocol);
        QCOMPARE(objects[2][u"event"_s], u"summary"_s);
        QCOMPARE(objects[2][u"acknowledged"_s], 1);
        QVERIFY(objects[2][u"latencyMs"_s][u"max"_s].isDouble());
    }

    void deregistersByEsnAndByAddress_data()
    {
        QTest::addColumn<QString>("options");
        QTest::newRow("by ESN") << u"--esn 0011AABB22CC33DD"_s;
        QTest::newRow("by address") << u"--by-address"_s;
    }
    void deregistersByEsnAndByAddress()
    {
        QFETCH(QString, options);
        TestServer server;
        server.start();
        const QString to = serverOption(server.registrationPort());
        RadioProcess registering(u"register"_s + OneRadio + to);
        QCOMPARE(registering.exitCode(), 0);
        QCOMPARE(server->radios().size(), size_t{1});
        RadioProcess tool(u"deregister --json --from 127.0.0.2 "_s + options + to);
        QCOMPARE(tool.exitCode(), 0);
        QTRY_VERIFY(server->radios().empty());
        QCOMPARE(tool.objects().constLast()[u"deregistrations"_s], 1);
    }

    void radioWithoutAnEsnSaysSo()
    {
        RadioProcess tool(u"register --suid 01234.567.89ABCD --timeout 1 --from 127.0.0.3"_s +
                          serverOption(freeUdpPort()));
        QCOMPARE(tool.exitCode(), 3);
        const QString output = tool.output();
        QVERIFY2(
            output.startsWith(u"sent: registration without an ESN with SUID 01234.567.89ABCD, services none"),
            qPrintable(output));
        QVERIFY2(output.contains(u"lost: no acknowledgement for F10123456789ABCD within 1 ms\n"),
                 qPrintable(output));
    }

    void nobodyAnswers()
    {
        QUdpSocket silent;
        QVERIFY(silent.bind(QHostAddress::LocalHost, 0));
        RadioProcess tool(u"register --json --timeout 50 --retries 2"_s + OneRadio +
                          serverOption(silent.localPort()));
        QCOMPARE(tool.exitCode(), 3);
        const QList<QJsonObject> objects = tool.objects();
        QCOMPARE(objects[1][u"event"_s], u"lost"_s);
        QCOMPARE(objects[2][u"sent"_s], 1);
        QCOMPARE(objects[2][u"lost"_s], 1);
        QCOMPARE(objects[2][u"repeated"_s], 2);
        QVERIFY(objects[2][u"latencyMs"_s].isNull());
        int datagrams = 0;
        for (; silent.hasPendingDatagrams(); ++datagrams) {
            silent.readDatagram(nullptr, 0);
        }
        QCOMPARE(datagrams, 3);
    }

    void portThatNobodyHasLosesTheFleet()
    {
        RadioProcess tool(u"fleet --json --timeout 50 --rate 1000 --addresses 127.0.1.1-127.0.1.5"_s +
                          serverOption(freeUdpPort()));
        QCOMPARE(tool.exitCode(), 3);
        QCOMPARE(tool.objects().constLast()[u"lost"_s], 5);
    }

    void answersADiscoveryRequestByRegisteringAgain()
    {
        TestServer server;
        server.start();
        const quint16 listenPort = freeUdpPort();
        RadioProcess tool(u"register --json --stay --listen-port %1"_s.arg(listenPort) + OneRadio +
                          serverOption(server.registrationPort()));
        QTRY_VERIFY(tool.output().contains(u"acknowledgement"));
        server.log.take();

        QUdpSocket sender;
        const QByteArray another = QByteArray::fromHex("514d5253030011aabb22cc33de040000");
        const QByteArray request = QByteArray::fromHex("514d5253030011aabb22cc33dd040000");
        sender.writeDatagram(another, QHostAddress(u"127.0.0.2"_s), listenPort);
        sender.writeDatagram(request, QHostAddress(u"127.0.0.2"_s), listenPort);
        QTRY_COMPARE(tool.output().count(u"\"acknowledgement\""), 2);
        QCOMPARE(tool.output().count(u"\"discoveryRequest\""), 2); // both are printed, one is answered
        QCOMPARE(server.log.records().size(), 1);
    }

    void listensForAnything()
    {
        const quint16 port = freeUdpPort();
        RadioProcess tool(u"listen --json --from 127.0.0.2 --listen-port %1 --count 2"_s.arg(port));
        QTRY_VERIFY(tool.output().contains(u"\"listening\""));
        QUdpSocket sender;
        sender.writeDatagram("?", QHostAddress(u"127.0.0.2"_s), port);
        sender.writeDatagram(QByteArray::fromHex("514d5253020011aabb22cc33dd040000"),
                             QHostAddress(u"127.0.0.2"_s), port);
        QCOMPARE(tool.exitCode(), 0);
        const QList<QJsonObject> objects = tool.objects();
        QCOMPARE(objects[1][u"bytes"_s], u"3f"_s);
        QCOMPARE(objects[2][u"event"_s], u"discoveryRequest"_s);
        QCOMPARE(objects[2][u"esn"_s], u"0011AABB22CC33DD"_s);
        QCOMPARE(objects[2][u"protocol"_s], 2);
    }

    void listeningInVainIsToldByTheExitCode()
    {
        RadioProcess tool(
            u"listen --from 127.0.0.2 --count 1 --stay 0.05 --listen-port %1"_s.arg(freeUdpPort()));
        QCOMPARE(tool.exitCode(), 3);
    }

    void fleetRegistersOnItsAddresses()
    {
        TestServer server;
        server.start();
        RadioProcess tool(
            u"fleet --json --rate 5000 --timeout 20000 --services 2 --pending 25 --addresses 127.1.0.1-127.1.1.44"_s +
            serverOption(server.registrationPort()));
        QCOMPARE(tool.exitCode(), 0);
        QCOMPARE(tool.objects().size(), 1);
        const QJsonObject summary = tool.objects().constFirst();
        QCOMPARE(summary[u"sent"_s], 300);
        QCOMPARE(summary[u"acknowledged"_s], 300);
        QCOMPARE(summary[u"lost"_s], 0);
        const QJsonValue latency = summary[u"latencyMs"_s];
        QVERIFY(latency[u"p50"_s].toDouble() > 0);
        QVERIFY(latency[u"p50"_s].toDouble() <= latency[u"p90"_s].toDouble());
        QVERIFY(latency[u"p90"_s].toDouble() <= latency[u"p99"_s].toDouble());
        QVERIFY(latency[u"p99"_s].toDouble() <= latency[u"max"_s].toDouble());
        QCOMPARE(server->radios().size(), size_t{300});
        QCOMPARE(server->awaitingConfirmation().size(), size_t{75});
        QCOMPARE(server.query(u"SELECT count(*), min(ip_address), max(ip_address) FROM subscribers"_s),
                 (QList<QVariantList>{{225LL, 2130771969LL, 2130772267LL}}));
    }

    void fleetRegistersAgainAndDeregisters()
    {
        TestServer server;
        server.start();
        RadioProcess tool(
            u"fleet --json --rate 2000 --timeout 20000 --window 7 --rounds 3 --deregister --addresses 127.1.0.1-127.1.0.40"_s +
            serverOption(server.registrationPort()));
        QCOMPARE(tool.exitCode(), 0);
        const QJsonObject summary = tool.objects().constFirst();
        QCOMPARE(summary[u"sent"_s], 120);
        QCOMPARE(summary[u"acknowledged"_s], 120);
        QCOMPARE(summary[u"deregistrations"_s], 40);
        QTRY_VERIFY(server->radios().empty());
        QCOMPARE(server.log.records().size(), 160);
    }

    void fleetEndsWithItsDuration()
    {
        TestServer server;
        server.start();
        RadioProcess tool(u"fleet --json --rate 100 --duration 0.2 --addresses 127.1.0.1-127.1.0.3"_s +
                          serverOption(server.registrationPort()));
        QCOMPARE(tool.exitCode(), 0);
        const QJsonObject summary = tool.objects().constFirst();
        QVERIFY(summary[u"sent"_s].toInt() > 3); // they go round again
        QCOMPARE(summary[u"acknowledged"_s], summary[u"sent"_s]);
    }

    void errorsAreToldOnStandardError_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("error");
        QTest::newRow("no command") << QString() << 2 << u"quillmere-radio: no command"_s;
        QTest::newRow("bad ESN") << u"register --esn 12"_s << 2
                                 << u"quillmere-radio: --esn: '12' is not an ESN"_s;
        QTest::newRow("bad rate") << u"fleet --rate 0"_s << 2
                                  << u"quillmere-radio: --rate: '0' is not a rate"_s;
        // An address that no machine has (kept for documents).
        QTest::newRow("foreign address") << u"register --suid 1.1.1 --from 192.0.2.1"_s << 1
                                         << u"quillmere-radio: cannot open a socket at 192.0.2.1: "_s;
        QTest::newRow("foreign fleet") << u"fleet --addresses 192.0.2.1-192.0.2.2"_s << 1
                                       << u"quillmere-radio: cannot open a socket at 192.0.2.1: "_s;
        QTest::newRow("foreign listener")
            << u"listen --from 192.0.2.1"_s << 1
            << u"quillmere-radio: cannot listen for discovery requests at 192.0.2.1:9361: "_s;
    }
    void errorsAreToldOnStandardError()
    {
        QFETCH(QString, line);
        QFETCH(int, code);
        QFETCH(QString, error);
        RadioProcess tool(line);
        QCOMPARE(tool.exitCode(), code);
        QCOMPARE(tool.output(), QString());
        const QString errors = tool.errors();
        QVERIFY2(errors.startsWith(error), qPrintable(errors));
        QCOMPARE(errors.count(u'\n'), code == 2 ? 2 : 1); // wrong usage: and where to find help
    }

    void portInUseIsToldOnStandardError()
    {
        QUdpSocket holder;
        QVERIFY(holder.bind(QHostAddress(u"127.0.0.2"_s), 0, QAbstractSocket::DontShareAddress));
        RadioProcess tool(u"listen --from 127.0.0.2 --listen-port %1"_s.arg(holder.localPort()));
        QCOMPARE(tool.exitCode(), 1);
        QCOMPARE(tool.output(), QString());
        const QString errors = tool.errors();
        const QString error = u"quillmere-radio: cannot listen for discovery requests at 127.0.0.2:%1: "_s;
        QVERIFY2(errors.startsWith(error.arg(holder.localPort())), qPrintable(errors));
        QCOMPARE(errors.count(u'\n'), 1);
    }

    void versionAndHelpGoToStandardOutput()
    {
        RadioProcess version(u"--version"_s);
        QCOMPARE(version.exitCode(), 0);
        QCOMPARE(version.output(), u"quillmere-radio 1.38.3.27\n"_s);
        RadioProcess help(u"fleet --help"_s);
        QCOMPARE(help.exitCode(), 0);
        QVERIFY(help.output().startsWith(u"Usage: quillmere-radio fleet [options]\n"));
    }
};

QTEST_GUILESS_MAIN(TestRadioTool)
#include "tst_radiotool.moc"
