// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/radiosocket.h"

#include "radio/qmrs.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace RadioTool {

namespace {

constexpr int ReceiveBuffer = 64 * 1024;
constexpr int DatagramsATurn = 64; // then the event loop looks at the other sockets

} // namespace

RadioSocket::RadioSocket(Handler newHandler) : handler(std::move(newHandler))
{
    QObject::connect(&socket, &QUdpSocket::readyRead, &socket, [this] { read(); });
}

bool RadioSocket::open(const QHostAddress &address, quint16 port)
{
    if (!socket.bind(address, port, QAbstractSocket::DontShareAddress)) {
        return false;
    }
    socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, ReceiveBuffer);
    return true;
}

RadioSocket::Outcome RadioSocket::send(const QByteArray &datagram, const Console::Endpoint &receiver)
{
    if (socket.writeDatagram(datagram, receiver.address, receiver.port) == datagram.size()) {
        return Outcome::Sent;
    }
    return socket.error() == QAbstractSocket::TemporaryError ? Outcome::TryAgain : Outcome::Failed;
}

Console::Parsed<QHostAddress> RadioSocket::addressTowards(const Console::Endpoint &server)
{
    QUdpSocket probe; // connecting a datagram socket sends nothing
    probe.connectToHost(server.address, server.port);
    if (probe.localAddress().isNull()) {
        const QString what = probe.error() == QAbstractSocket::SocketResourceError
                                 ? u"cannot open a socket"_s
                                 : u"there is no way to "_s + server.text();
        return Console::Parsed<QHostAddress>::failed(what + u": "_s + probe.errorString());
    }
    return Console::Parsed<QHostAddress>::of(probe.localAddress());
}

void RadioSocket::read()
{
    for (int i = 0; i < DatagramsATurn && socket.hasPendingDatagrams(); ++i) {
        QByteArray datagram(QMR::Qmrs::MaximumMessage, Qt::Uninitialized);
        Console::Endpoint sender;
        const qint64 size =
            socket.readDatagram(datagram.data(), datagram.size(), &sender.address, &sender.port);
        if (size >= 0) {
            datagram.truncate(size);
            handler(datagram, sender);
        }
    }
}

} // namespace RadioTool
