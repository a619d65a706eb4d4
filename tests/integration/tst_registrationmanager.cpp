// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "radio/registrationmanager.h"
#include "tests/support/eventloop.h"
#include "tests/support/registrationscene.h"

#include <QCoreApplication>
#include <QNetworkDatagram>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

const QString InvalidMessage = u"QMRS Protocol error: invalid message received (1)"_s;
const QString InvalidOpcodeForVersion = u"QMRS Protocol error: invalid opcode for protocol version"_s;
const QString InvalidOpcode = u"QMRS Protocol error: invalid message (2)"_s;
const QString InvalidLength = u"Protocol error: invalid length"_s;
const QString CannotBind = u"Unable to bind registration socket"_s;
const QString WriteFailed = u"Network error: write message failed"_s;

constexpr Scm::Dword NoId = 0;

const QByteArray Esn = QByteArray::fromHex("0011aabb22cc3301");
const QByteArray Suid = QByteArray::fromHex("123456789abc01");

QByteArray datagram(int version, int opcode, const QByteArray &payload = QByteArray(), int length = 0)
{
    QByteArray bytes("QMRS");
    bytes.append(static_cast<char>(version)).append(Esn).append(static_cast<char>(opcode));
    bytes.append(static_cast<char>(length & 0xFF)).append(static_cast<char>(length >> 8));
    return bytes + payload;
}

// How many datagrams of the given many a socket of this test's own keeps while nobody reads them.
int datagramsKept(bool asksForMore, int sent)
{
    QUdpSocket receiver;
    receiver.bind(QHostAddress(QHostAddress::Any), 0);
    if (asksForMore) {
        receiver.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 8 * 1024 * 1024);
    }
    QUdpSocket sender;
    for (int i = 0; i < sent; ++i) {
        sender.writeDatagram("?", 1, QHostAddress(QHostAddress::LocalHost), receiver.localPort());
    }
    int kept = 0;
    while (receiver.hasPendingDatagrams()) {
        receiver.receiveDatagram();
        ++kept;
    }
    return kept;
}

} // namespace

class TestRegistrationManager : public QObject
{
    Q_OBJECT

private slots:
    void rejectsWithOneRecordAndNothingElse_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("text");
        QTest::addColumn<Scm::Dword>("id");

        const QByteArray extended = Suid + QByteArray::fromHex("0000");
        const QByteArray basic = QByteArray::fromHex("020103");
        QTest::newRow("0 bytes") << QByteArray() << InvalidMessage << RecordingLog::Id;
        QTest::newRow("1 byte") << QByteArray("Q") << InvalidMessage << RecordingLog::Id;
        QTest::newRow("15 bytes") << datagram(3, 3).first(15) << InvalidMessage << RecordingLog::Id;
        QTest::newRow("other magic") << datagram(3, 3).replace(0, 4, "qmrs") << InvalidMessage
                                     << RecordingLog::Id;
        QTest::newRow("version 0") << datagram(0, 1, basic) << InvalidMessage << RecordingLog::Id;
        QTest::newRow("version 4") << datagram(4, 5, extended) << InvalidMessage << RecordingLog::Id;
        QTest::newRow("header length 265")
            << datagram(3, 5, extended, 265) << InvalidMessage << RecordingLog::Id;
        QTest::newRow("extended in version 1")
            << datagram(1, 5, extended) << InvalidOpcodeForVersion << RecordingLog::Id;
        QTest::newRow("extended in version 1, wrong length")
            << datagram(1, 5) << InvalidOpcodeForVersion << RecordingLog::Id;
        QTest::newRow("opcode 0") << datagram(3, 0) << InvalidOpcode << RecordingLog::Id;
        QTest::newRow("acknowledgement")
            << datagram(3, 2, QByteArray(1, '\0')) << InvalidOpcode << RecordingLog::Id;
        QTest::newRow("discovery request") << datagram(3, 4) << InvalidOpcode << RecordingLog::Id;
        QTest::newRow("opcode 6") << datagram(3, 6) << InvalidOpcode << RecordingLog::Id;
        QTest::newRow("opcode 255") << datagram(3, 255) << InvalidOpcode << RecordingLog::Id;
        QTest::newRow("deregistration with a payload")
            << datagram(3, 3, QByteArray(1, '\0')) << InvalidLength << RecordingLog::Id;
        // Deliberate: the same text under identifier 0.
        QTest::newRow("basic without a count") << datagram(1, 1) << InvalidLength << NoId;
        QTest::newRow("basic, cut") << datagram(1, 1, basic).chopped(1) << InvalidLength << NoId;
        QTest::newRow("basic, a byte more") << datagram(1, 1, basic + 'x') << InvalidLength << NoId;
        QTest::newRow("extended, cut") << datagram(3, 5, extended).chopped(1) << InvalidLength << NoId;
        QTest::newRow("extended, a byte more") << datagram(3, 5, extended + 'x') << InvalidLength << NoId;
        QTest::newRow("basic, 300 bytes, read as 280")
            << datagram(1, 1, '\xff' + QByteArray(283, '\1')) << InvalidLength << NoId;
    }

    // The bad datagram is about a radio that is registered, and comes from its address.
    void rejectsWithOneRecordAndNothingElse()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, text);
        QFETCH(Scm::Dword, id);
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        radio.registers("\1\3");
        QVERIFY(radio.isAcknowledged());
        radio.registersPending("\2");
        QVERIFY(radio.isAcknowledged());
        scene.settle();
        const QString known = scene.known(radio.esn);
        const QStringList stored = scene.stored();
        LogRecord written;
        scene.server.log.whenWritten([&](const LogRecord &record) {
            if (written.message.isEmpty()) {
                written = record;
            }
        });

        radio.sends(bytes);
        const auto outcome = scene.settle();

        QCOMPARE(outcome.log, QStringList{text});
        QCOMPARE(written, RecordingLog::record(Scm::EventWarning, text, id));
        QCOMPARE(outcome.notices, QStringList());
        QCOMPARE(scene.known(radio.esn), known);
        QCOMPARE(scene.stored(), stored);
        QVERIFY(!radio.hasReceived());
    }

    void readsTheFirst280BytesOfALongerDatagram()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        const QByteArray services(255, '\3');
        radio.sends(datagram(3, 5, Suid + '\0' + '\xff' + services + QByteArray(20, 'x'), 264));
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(scene.settle().log, QStringList{radio.registeredText()});
        QCOMPARE(scene.server->findRadio(radio.esn)->supportedServices, QMR::ServiceList(255, 3));
    }

    void ignoresTheHeadersLength()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        radio.sends(datagram(1, 1, QByteArray(1, '\0'), 264));
        QVERIFY(radio.isAcknowledged(1));
    }

    void acknowledgesWithTheRegisteredVersion_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QByteArray>("acknowledgement");
        const QByteArray extended = Suid + QByteArray::fromHex("0000");
        const QByteArray pending = Suid + QByteArray::fromHex("0100");
        const QByteArray version1 = QByteArray::fromHex("514d5253 01 0011aabb22cc3301 02 0100 00");
        const QByteArray version2 = QByteArray::fromHex("514d5253 02 0011aabb22cc3301 02 0100 00");
        const QByteArray version3 = QByteArray::fromHex("514d5253 03 0011aabb22cc3301 02 0100 00");
        QTest::newRow("basic 1") << datagram(1, 1, QByteArray(1, '\0')) << version1;
        QTest::newRow("basic 2") << datagram(2, 1, QByteArray(1, '\0')) << version1;
        QTest::newRow("basic 3") << datagram(3, 1, QByteArray(1, '\0')) << version1;
        QTest::newRow("extended 2") << datagram(2, 5, extended) << version2;
        QTest::newRow("extended 3") << datagram(3, 5, extended) << version3;
        QTest::newRow("pending 2") << datagram(2, 5, pending) << version2;
        QTest::newRow("pending 3") << datagram(3, 5, pending) << version3;
        QTest::newRow("extended without an ESN")
            << datagram(3, 5, extended).replace(5, 8, QByteArray(8, '\0'))
            << QByteArray::fromHex("514d5253 03 f1123456789abc01 02 0100 00");
    }

    void acknowledgesWithTheRegisteredVersion()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QByteArray, acknowledgement);
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        radio.registersPending(); // known already, under version 3
        QVERIFY(radio.isAcknowledged());
        radio.sends(bytes);
        QCOMPARE(radio.receives(), acknowledgement);
    }

    // Not to the port of an earlier datagram of that radio, nor to the registration port.
    void acknowledgesToTheDatagramsOwnPort()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        ScriptedRadio otherPort(scene.server.registrationPort(), 0x01);
        otherPort.registers();
        QVERIFY(otherPort.isAcknowledged());
        otherPort.registersPending();
        QVERIFY(otherPort.isAcknowledged());
        QVERIFY(!radio.hasReceived());
    }

    // Only what has to be stored first is held back. This manager is not the server's own: what it holds
    // back, nobody lets go.
    void onlyAcknowledgementsInATurnAreHeldBack()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 0x01);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        QMR::RegistrationManager manager(&server.object(), freeUdpPort());
        const QMR::RadioPointer entry = server->findRadio(radio.esn);
        QMR::Qmrs::Buffer message{};
        {
            const QMR::WriteTurn turn(server->writeGroup());
            manager.sendMessage(QMR::Qmrs::Opcode::Acknowledgement, 1, message, entry, radio.port(), false);
            manager.sendMessage(QMR::Qmrs::Opcode::DiscoveryRequest, 0, message, entry, radio.port(), false);
            QCOMPARE(radio.receives(), radio.message(4, QByteArray()));
        }
        QVERIFY(!radio.hasReceived());
        manager.sendMessage(QMR::Qmrs::Opcode::Acknowledgement, 1, message, entry, radio.port(), false);
        QVERIFY(radio.isAcknowledged());
    }

    // What is posted while the first one is handled comes before the second one is.
    void handlesOneDatagramACallInTheirOrder()
    {
        TestServer server;
        server.start();
        const quint16 port = freeUdpPort();
        QMR::RegistrationManager manager(&server.object(), port);
        ScriptedRadio radio(port, 0x01);
        radio.sends(datagram(3, 9));
        radio.sends(datagram(3, 3));
        radio.sends("?");
        QVERIFY(QMetaObject::invokeMethod(&manager, "radioMessageReceived"));
        QCOMPARE(server.log.takeMessages(), QStringList{InvalidOpcode});
        // Each of the others raises a notification of its own.
        QCOMPARE(server.log.takeMessagesOnce(2),
                 (QStringList{u"Unknown Radio 0011AABB22CC3301 deregistered [ignored]"_s, InvalidMessage}));
    }

    // Each bad datagram brings the next: the socket is never idle.
    void floodLeavesTheEventLoopItsOtherWork()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 0x01);
        server.log.whenWritten([&radio](const LogRecord &) { radio.sends("?"); });
        radio.sends("?");
        bool isTimed = false;
        bool isPosted = false;
        QTimer::singleShot(100, this, [&isTimed] { isTimed = true; });
        QMetaObject::invokeMethod(
            this, [&isPosted] { isPosted = true; }, Qt::QueuedConnection);
        QTRY_VERIFY(isTimed && isPosted);
        QVERIFY(server.log.count(InvalidMessage) > 1);
        server.log.whenWritten({});
    }

    void aTakenPortIsReportedOnceAndTheServiceGoesOn()
    {
        TestServer server;
        QUdpSocket squatter;
        QVERIFY(squatter.bind(server.registrationPort(), QAbstractSocket::DefaultForPlatform));
        server->start();
        QCOMPARE(server.log.count(CannotBind), 1);
        QVERIFY(server.log.records().contains(RecordingLog::record(Scm::EventError, CannotBind)));
        QVERIFY(server.log.records().last().message.startsWith(u"Quill Mere 1.38.3.27\n Service started"_s));
        server.log.take();

        ScriptedApplication application(server.applicationPort());
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 1);
        // It receives nothing, and can still send.
        ScriptedRadio radio(server.registrationPort(), 0x01);
        server->registerRadio(radio.esn, 3, radio.suid, radio.address(), radio.port(), false, {});
        QVERIFY(radio.isAcknowledged());
        QVERIFY(application.sees(radio, QMR::Registered));
        QCOMPARE(server.log.count(CannotBind), 0);
    }

    // A send binds the socket to a port of the system's choice, which is not the one that radios are to use.
    void whatReachesAnUnboundSocketIsNotHandled()
    {
        TestServer server;
        QUdpSocket squatter;
        QVERIFY(squatter.bind(server.registrationPort(), QAbstractSocket::DefaultForPlatform));
        server->start();
        ScriptedRadio radio(server.registrationPort(), 0x01);
        server->registerRadio(radio.esn, 3, radio.suid, radio.address(), radio.port(), false, {});
        QUdpSocket observer;
        QVERIFY(observer.bind(QHostAddress(u"127.0.0.3"_s)));
        server->registerRadio(radio.esn, 3, radio.suid, observer.localAddress(), observer.localPort(), false,
                              {});
        QTRY_VERIFY(observer.hasPendingDatagrams());
        const int port = observer.receiveDatagram().senderPort();
        QVERIFY(port > 0);
        QVERIFY(port != server.registrationPort());
        server.log.take();

        ScriptedRadio other(static_cast<quint16>(port), 0x02, u"127.0.0.4"_s);
        other.registers();
        other.sends("?");
        // What is sent later is dealt with later.
        ScriptedApplication application(server.applicationPort());
        QTRY_VERIFY(!server.log.records().isEmpty());
        for (int i = 0; i < 100; ++i) {
            QCoreApplication::processEvents();
        }
        QCOMPARE(server.log.takeMessages(), QStringList{u"Application connected from 127.0.0.1"_s});
        QVERIFY(!server->findRadio(other.esn));
        QVERIFY(!other.hasReceived());
    }

    void isSilentWhenItGoes()
    {
        TestServer server;
        server.start();
        auto manager = std::make_unique<QMR::RegistrationManager>(&server.object(), freeUdpPort());
        manager.reset();
        QCOMPARE(server.log.takeMessages(), QStringList());
    }

    void aFailedWriteIsReportedOnceAndChangesNothing()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        scene.server->registerRadio(radio.esn, 3, radio.suid, radio.address(), 0, false, {1});
        QCOMPARE(scene.server.log.take(),
                 (QList{RecordingLog::record(Scm::EventInformation, radio.registeredText()),
                        RecordingLog::record(Scm::EventError, WriteFailed)}));
        QCOMPARE(scene.known(radio.esn), u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3"_s);
        QCOMPARE(scene.stored().size(), 1);
    }

    // A notification with nothing to read, while a radio's datagram was read just before: nothing of it
    // counts again.
    void aFailedReadIsRejectedLikeABadDatagram()
    {
        TestServer server;
        server.start();
        const quint16 port = freeUdpPort();
        QMR::RegistrationManager manager(&server.object(), port);
        ScriptedRadio radio(port, 0x01);
        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        server.log.take();

        QVERIFY(QMetaObject::invokeMethod(&manager, "radioMessageReceived", Qt::DirectConnection));

        QCOMPARE(server.log.take(), QList{RecordingLog::record(Scm::EventWarning, InvalidMessage)});
    }

    // A burst that nobody reads yet: as many are kept as by a socket that has asked for 8 MiB.
    void asksForALargerReceiveBuffer()
    {
        constexpr int Burst = 20000;
        const int asked = datagramsKept(true, Burst);
        QVERIFY2(datagramsKept(false, Burst) < asked, "this system gives no larger buffer");
        TestServer server;
        server.start();
        QUdpSocket sender;
        for (int i = 0; i < Burst; ++i) {
            sender.writeDatagram("?", 1, QHostAddress(QHostAddress::LocalHost), server.registrationPort());
        }
        QVERIFY(runsUntil([&] { return server.log.records().size() == asked; }));
    }
};

QTEST_GUILESS_MAIN(TestRegistrationManager)
#include "tst_registrationmanager.moc"
