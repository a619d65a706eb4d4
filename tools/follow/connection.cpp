// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/connection.h"

#include "tools/follow/keepalive.h"

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace Follow {

namespace {

constexpr qint64 FirstPause = 500;     // ms
constexpr qint64 LongestPause = 30000; // ms

} // namespace

Connection::Connection(Console::Endpoint newServer) : server(std::move(newServer))
{
    again.setSingleShot(true);
    QObject::connect(&again, &QTimer::timeout, &again, [this] { open(); });
    QObject::connect(&socket, &QTcpSocket::connected, &socket, [this] {
        keepAlive(descriptor());
        onConnected();
    });
    QObject::connect(&socket, &QTcpSocket::readyRead, &socket, [this] { read(); });
    QObject::connect(&socket, &QTcpSocket::errorOccurred, &socket, [this] { lost(socket.errorString()); });
}

qint64 Connection::pauseBeforeAttempt(int attempt)
{
    constexpr int MaximumDoublings = 6; // beyond the longest pause
    return std::min(FirstPause << std::min(attempt, MaximumDoublings), LongestPause);
}

void Connection::open()
{
    // A name is looked up anew, where Qt's own minute is over: a server may have moved since.
    socket.connectToHost(server.host(), server.port, QTcpSocket::ReadWrite, QTcpSocket::IPv4Protocol);
}

void Connection::stop()
{
    stopped = true;
    again.stop();
    socket.abort();
}

void Connection::lost(const QString &reason)
{
    if (stopped || again.isActive()) {
        return;
    }
    const qint64 pause = pauseBeforeAttempt(attempt++);
    again.start(static_cast<int>(pause));
    socket.abort();
    onLost(reason, pause);
}

void Connection::read()
{
    using namespace QMR::Qmra;
    while (!stopped && socket.bytesAvailable() >= HeaderSize) {
        const Header header = decodeHeader(socket.peek(HeaderSize));
        const bool isMessage = header.magicMatches && header.protocolVersion == ProtocolVersion &&
                               header.payloadLength <= MaximumPayload;
        if (isMessage && socket.bytesAvailable() < HeaderSize + header.payloadLength) {
            return;
        }
        const QByteArray message = isMessage ? socket.read(HeaderSize + header.payloadLength) : QByteArray();
        if (isMessage && header.messageType != static_cast<quint8>(MessageType::RadioNotice)) {
            continue; // a later server may have more to say
        }
        const auto notice =
            isMessage ? decodeNotice(QByteArrayView(message).sliced(HeaderSize)) : std::nullopt;
        if (!notice) {
            lost(u"what came is no radio notice"_s);
            return;
        }
        attempt = 0; // it is a server, and it speaks
        onNotice(*notice);
    }
}

} // namespace Follow
