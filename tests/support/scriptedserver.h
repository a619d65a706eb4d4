// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QHostAddress>
#include <QList>
#include <QUdpSocket>

// A server on loopback that keeps what it receives and acknowledges when told, in this process's event loop.
// It reads and writes its datagrams byte by byte, so that a scenario does not rest on the codec.
class ScriptedServer
{
public:
    struct Received
    {
        quint64 esn = 0;
        quint32 sender = 0; // IPv4
        quint16 port = 0;
        QByteArray datagram;
    };

    // acknowledges: each registration at once.
    explicit ScriptedServer(bool acknowledges);

    quint16 port() const { return socket.localPort(); }
    const QList<Received> &received() const { return all; }

    // To whoever sent the first, for the ESN of the second.
    void acknowledge(const Received &receiver, const Received &radio);

private:
    void read();

    QUdpSocket socket;
    QList<Received> all;
    bool isAcknowledging;
};
