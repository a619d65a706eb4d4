// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedserver.h"

#include <QVariant>
#include <QtEndian>

namespace {

constexpr int ReceiveBuffer = 1024 * 1024;

} // namespace

ScriptedServer::ScriptedServer(bool acknowledges) : isAcknowledging(acknowledges)
{
    if (!socket.bind(QHostAddress::LocalHost, 0)) {
        qFatal("no socket on loopback: %s", qPrintable(socket.errorString()));
    }
    socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, ReceiveBuffer);
    QObject::connect(&socket, &QUdpSocket::readyRead, &socket, [this] { read(); });
}

void ScriptedServer::acknowledge(const Received &receiver, const Received &radio)
{
    const QByteArray datagram =
        radio.datagram.first(13) + QByteArray::fromHex("02 0100 00"); // magic, version and ESN are the same
    socket.writeDatagram(datagram, QHostAddress(receiver.sender), receiver.port);
}

void ScriptedServer::read()
{
    while (socket.hasPendingDatagrams()) {
        Received received;
        QHostAddress sender;
        received.datagram.resize(socket.pendingDatagramSize());
        socket.readDatagram(received.datagram.data(), received.datagram.size(), &sender, &received.port);
        received.sender = sender.toIPv4Address();
        received.esn = qFromBigEndian<quint64>(received.datagram.constData() + 5);
        all.append(received);
        if (isAcknowledging) {
            acknowledge(received, received);
        }
    }
}
