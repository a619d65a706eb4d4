// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/qmrs.h"

#include <QTest>

using namespace QMR;
using Kind = Qmrs::ServerMessage::Kind;

namespace {

const Esn TestEsn{{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0xDD}};
const Suid TestSuid{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};

const QByteArray Acknowledgement = QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 02 0100 00");
const QByteArray DiscoveryRequest = QByteArray::fromHex("514d5253 01 0011aabb22cc33dd 04 0000");

QByteArray with(QByteArray datagram, qsizetype offset, int value)
{
    datagram[offset] = static_cast<char>(value);
    return datagram;
}

} // namespace

// The encoders, and the radio's view of what the server sends.
class TestQmrsClient : public QObject
{
    Q_OBJECT

private slots:
    void encodes_data()
    {
        QTest::addColumn<QByteArray>("encoded");
        QTest::addColumn<QByteArray>("datagram");

        QTest::newRow("basic") << Qmrs::encodeBasicRegistration(1, TestEsn, {1, 2, 3})
                               << QByteArray::fromHex("514d5253 01 0011aabb22cc33dd 01 0400 03 010203");
        QTest::newRow("basic, no services, version 3")
            << Qmrs::encodeBasicRegistration(3, TestEsn, {})
            << QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 01 0100 00");
        QTest::newRow("basic, unknown services go out as given")
            << Qmrs::encodeBasicRegistration(2, Esn{}, {0, 255})
            << QByteArray::fromHex("514d5253 02 0000000000000000 01 0300 02 00ff");
        QTest::newRow("extended") << Qmrs::encodeExtendedRegistration(2, TestEsn, TestSuid, false, {3, 2})
                                  << QByteArray::fromHex(
                                         "514d5253 02 0011aabb22cc33dd 05 0b00 123456789abcde 00 02 0302");
        QTest::newRow("extended, pending")
            << Qmrs::encodeExtendedRegistration(3, TestEsn, TestSuid, true, {})
            << QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 05 0900 123456789abcde 01 00");
        QTest::newRow("extended, 255 services, length 264 low byte first")
            << Qmrs::encodeExtendedRegistration(3, TestEsn, TestSuid, false, ServiceList(255, 2))
            << QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 05 0801 123456789abcde 00 ff") +
                   QByteArray(255, '\2');
        QTest::newRow("deregistration") << Qmrs::encodeDeregistration(3, TestEsn)
                                        << QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 03 0000");
        QTest::newRow("deregistration by address")
            << Qmrs::encodeDeregistration(2, Esn{})
            << QByteArray::fromHex("514d5253 02 0000000000000000 03 0000");
    }

    void encodes()
    {
        QFETCH(QByteArray, encoded);
        QTEST(encoded, "datagram");
    }

    // What was in the buffer before, of a longer message, is no part of the next one.
    void writesIntoABufferThatWasUsed()
    {
        Qmrs::Buffer buffer;
        buffer.fill(0xEE);
        const auto bytes = [&buffer](quint16 size) {
            return QByteArray(reinterpret_cast<const char *>(buffer.data()), size);
        };
        QCOMPARE(bytes(Qmrs::writeExtendedRegistration(buffer, 3, TestEsn, TestSuid, true, {3, 2})),
                 QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 05 0b00 123456789abcde 01 02 0302"));
        QCOMPARE(bytes(Qmrs::writeExtendedRegistration(buffer, 2, TestEsn, TestSuid, false, {})),
                 QByteArray::fromHex("514d5253 02 0011aabb22cc33dd 05 0900 123456789abcde 00 00"));
        QCOMPARE(bytes(Qmrs::writeBasicRegistration(buffer, 1, TestEsn, {1})),
                 QByteArray::fromHex("514d5253 01 0011aabb22cc33dd 01 0200 01 01"));
        QCOMPARE(bytes(Qmrs::writeDeregistration(buffer, 2, TestEsn)),
                 QByteArray::fromHex("514d5253 02 0011aabb22cc33dd 03 0000"));
        QCOMPARE(buffer[Qmrs::HeaderSize + 9], quint8{3}); // beyond: as the first message left it
    }

    // The server's two messages are a header and at most one payload byte, which stays as it was.
    void writesTheHeaderAndNothingElse_data()
    {
        QTest::addColumn<int>("version");
        QTest::addColumn<int>("opcode");
        QTest::addColumn<int>("length");
        QTest::addColumn<QByteArray>("header");

        QTest::newRow("acknowledgement") << 3 << 2 << 1 << Acknowledgement.first(16);
        QTest::newRow("discovery request") << 1 << 4 << 0 << DiscoveryRequest;
        QTest::newRow("version 255, length 264")
            << 255 << 5 << 264 << QByteArray::fromHex("514d5253 ff 0011aabb22cc33dd 05 0801");
        QTest::newRow("version 0, length 65535")
            << 0 << 1 << 65535 << QByteArray::fromHex("514d5253 00 0011aabb22cc33dd 01 ffff");
    }

    void writesTheHeaderAndNothingElse()
    {
        QFETCH(int, version);
        QFETCH(int, opcode);
        QFETCH(int, length);
        QFETCH(QByteArray, header);
        Qmrs::Buffer buffer;
        buffer.fill(0xA5);
        Qmrs::writeHeader(buffer, static_cast<quint8>(version), TestEsn, static_cast<Qmrs::Opcode>(opcode),
                          static_cast<quint16>(length));
        const QByteArray written(reinterpret_cast<const char *>(buffer.data()), buffer.size());
        QCOMPARE(written, QByteArray(header + QByteArray(264, '\xA5')));
    }

    void decodesWhatTheServerSends_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<int>("version");
        QTest::addColumn<Kind>("kind");

        QTest::newRow("acknowledgement") << Acknowledgement << 3 << Kind::Acknowledgement;
        QTest::newRow("acknowledgement, version 1")
            << with(Acknowledgement, 4, 1) << 1 << Kind::Acknowledgement;
        QTest::newRow("discovery request") << DiscoveryRequest << 1 << Kind::DiscoveryRequest;
        QTest::newRow("discovery request, version 2")
            << with(DiscoveryRequest, 4, 2) << 2 << Kind::DiscoveryRequest;
    }

    void decodesWhatTheServerSends()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(int, version);
        QFETCH(Kind, kind);
        const Qmrs::ServerMessage message = Qmrs::decodeServerMessage(datagram);
        QCOMPARE(message.kind, kind);
        QCOMPARE(static_cast<int>(message.protocolVersion), version);
        QCOMPARE(message.esn, TestEsn);
    }

    void rejectsWhatNoServerSends_data()
    {
        QTest::addColumn<QByteArray>("datagram");

        QTest::newRow("acknowledgement with payload 1") << with(Acknowledgement, 16, 1);
        QTest::newRow("acknowledgement, a byte more") << Acknowledgement + '\0';
        QTest::newRow("discovery request, a byte more") << DiscoveryRequest + '\0';
        QTest::newRow("version 0") << with(Acknowledgement, 4, 0);
        QTest::newRow("version 4") << with(DiscoveryRequest, 4, 4);
        QTest::newRow("lower case magic") << with(Acknowledgement, 0, 'q');
        QTest::newRow("header length 265") << with(with(Acknowledgement, 14, 9), 15, 1);
        for (int size = 0; size < 17; ++size) {
            QTest::addRow("acknowledgement cut to %d", size) << Acknowledgement.first(size);
        }
        for (int size = 0; size < 16; ++size) {
            QTest::addRow("discovery request cut to %d", size) << DiscoveryRequest.first(size);
        }
        for (int opcode = 0; opcode <= 255; ++opcode) {
            if (opcode != 2) {
                QTest::addRow("opcode %d with a byte", opcode) << with(Acknowledgement, 13, opcode);
            }
            if (opcode != 4) {
                QTest::addRow("opcode %d without", opcode) << with(DiscoveryRequest, 13, opcode);
            }
        }
    }

    void rejectsWhatNoServerSends()
    {
        QFETCH(QByteArray, datagram);
        const QByteArray exact(datagram.constData(), datagram.size());
        QCOMPARE(Qmrs::decodeServerMessage(exact).kind, Kind::Invalid);
    }
};

QTEST_APPLESS_MAIN(TestQmrsClient)
#include "tst_qmrsclient.moc"
