// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/identity.h"

#include <QHostAddress>
#include <QUdpSocket>

using namespace Qt::StringLiterals;

// One radio at a loopback address of its own, speaking to a server in this process or another. It writes its
// datagrams byte by byte, so that a scenario does not rest on the codec it tests.
class ScriptedRadio
{
public:
    // serial: the last byte of its ESN and of its SUID. address: its own.
    ScriptedRadio(quint16 serverPort, quint8 serial, const QString &address = u"127.0.0.2"_s);

    QMR::Esn esn;
    QMR::Suid suid;
    quint8 protocolVersion = 3;
    QHostAddress serverAddress{QHostAddress::LocalHost};

    QHostAddress address() const { return socket.localAddress(); }
    quint16 port() const { return socket.localPort(); }
    QString esnText() const { return esn.text(); }
    QString suidText() const { return suid.text(); }
    // The log's records of this radio.
    QString registeredText() const;
    QString deregisteredText() const;

    // The radio goes on at another address.
    void movesTo(const QString &address);

    void registers(const QByteArray &services = QByteArray()); // extended, confirmed
    void registersPending(const QByteArray &services = QByteArray());
    void registersBasic(const QByteArray &services = QByteArray());
    void deregisters();
    void deregistersByAddress();
    void sends(const QByteArray &datagram);

    // Waits for the server's next datagram; empty when none came in time.
    QByteArray receives();
    // Whether a datagram is there already.
    bool hasReceived() const { return socket.hasPendingDatagrams(); }
    // The next datagram is this radio's acknowledgement, with the version it has registered with.
    bool isAcknowledged(int version = 0);

    // 16 header bytes and the payload, with the length that is true.
    QByteArray message(quint8 opcode, const QByteArray &payload, bool withEsn = true) const;

private:
    void sendsExtended(bool pending, const QByteArray &services);

    quint16 serverPort;
    QUdpSocket socket;
};
