// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/radiosocket.h"

#include "service/platform.h"

#include <QVariant>

#include <algorithm>
#include <utility>

namespace QMR {

namespace {

constexpr int ReceiveBufferSize = 8 * 1024 * 1024;

// An IPv4 sender reaches the dual-stack socket in IPv4-mapped IPv6 form, which equals no plain IPv4 address.
QHostAddress plainAddress(const QHostAddress &address)
{
    bool isIpv4 = false;
    const quint32 value = address.toIPv4Address(&isIpv4);
    return isIpv4 ? QHostAddress(value) : address;
}

} // namespace

RadioSocket::RadioSocket(quint16 port, std::function<void()> arrived)
    : hasArrived(std::move(arrived)), bound(socket.bind(port, QAbstractSocket::DefaultForPlatform))
{
    // All radios may answer at once after an outage. The system may give less; then less it is.
    socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, ReceiveBufferSize);
    QObject::connect(&socket, &QUdpSocket::readyRead, &socket, [this] { readyRead(); });
}

// Exactly one datagram a call; one that is still waiting raises the next notification.
void RadioSocket::readyRead()
{
    platform.endEventLoopTurn();
    if (bound) {
        hasArrived();
    } else {
        take(); // its first send has bound it to whatever port was free: what comes there is for nobody
    }
}

bool RadioSocket::hasWaiting() const
{
    return socket.hasPendingDatagrams();
}

RadioSocket::Datagram RadioSocket::take()
{
    Datagram datagram;
    QHostAddress sender;
    const qint64 received = socket.readDatagram(reinterpret_cast<char *>(datagram.bytes.data()),
                                                Qmrs::MaximumMessage, &sender, &datagram.port);
    // A failed read has no bytes, which the decoder rejects. A datagram longer than the buffer fills it, but
    // where the system calls that an error the count can be none: then the buffer, all zeros before, tells.
    const bool isCut = received <= 0 && datagram.bytes[0] != 0;
    datagram.size = isCut ? Qmrs::MaximumMessage : std::max<qint64>(received, 0);
    datagram.sender = plainAddress(sender);
    return datagram;
}

bool RadioSocket::send(QByteArrayView bytes, const QHostAddress &destination, quint16 port)
{
    return socket.writeDatagram(bytes.data(), bytes.size(), destination, port) == bytes.size();
}

} // namespace QMR
