// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedradio.h"

#include <QNetworkDatagram>
#include <QTest>

using namespace Qt::StringLiterals;

ScriptedRadio::ScriptedRadio(quint16 port, quint8 serial, const QString &address) : serverPort(port)
{
    esn.bytes = {0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, serial};
    suid.bytes = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, serial};
    movesTo(address);
}

QString ScriptedRadio::registeredText() const
{
    return u"Radio %1 with SUID %2 registered with address %3"_s.arg(esnText(), suidText(),
                                                                     address().toString());
}

QString ScriptedRadio::deregisteredText() const
{
    return u"Radio %1 with SUID %2 deregistered from address %3"_s.arg(esnText(), suidText(),
                                                                       address().toString());
}

void ScriptedRadio::movesTo(const QString &address)
{
    socket.close();
    if (!socket.bind(QHostAddress(address), 0)) {
        qFatal("cannot bind %s", qPrintable(address));
    }
}

void ScriptedRadio::registers(const QByteArray &services)
{
    sendsExtended(false, services);
}

void ScriptedRadio::registersPending(const QByteArray &services)
{
    sendsExtended(true, services);
}

void ScriptedRadio::sendsExtended(bool pending, const QByteArray &services)
{
    QByteArray payload(reinterpret_cast<const char *>(suid.bytes.data()), 7);
    payload.append(pending ? '\1' : '\0').append(static_cast<char>(services.size())).append(services);
    sends(message(5, payload));
}

void ScriptedRadio::registersBasic(const QByteArray &services)
{
    sends(message(1, QByteArray(1, static_cast<char>(services.size())) + services));
}

void ScriptedRadio::deregisters()
{
    sends(message(3, QByteArray()));
}

void ScriptedRadio::deregistersByAddress()
{
    sends(message(3, QByteArray(), false));
}

void ScriptedRadio::sends(const QByteArray &datagram)
{
    socket.writeDatagram(datagram, serverAddress, serverPort);
}

QByteArray ScriptedRadio::receives()
{
    if (!QTest::qWaitFor([this] { return socket.hasPendingDatagrams(); })) {
        return QByteArray();
    }
    return socket.receiveDatagram().data();
}

bool ScriptedRadio::isAcknowledged(int version)
{
    QByteArray expected = message(2, QByteArray(1, '\0'));
    expected[4] = static_cast<char>(version == 0 ? protocolVersion : version);
    return receives() == expected;
}

QByteArray ScriptedRadio::message(quint8 opcode, const QByteArray &payload, bool withEsn) const
{
    QByteArray bytes("QMRS");
    bytes.append(static_cast<char>(protocolVersion));
    bytes.append(withEsn ? QByteArray(reinterpret_cast<const char *>(esn.bytes.data()), 8)
                         : QByteArray(8, '\0'));
    bytes.append(static_cast<char>(opcode));
    bytes.append(static_cast<char>(payload.size() & 0xFF)).append(static_cast<char>(payload.size() >> 8));
    return bytes + payload;
}
