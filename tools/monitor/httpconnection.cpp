// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/httpconnection.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

constexpr qint64 MostUnread = 16384;  // bytes taken from the system ahead of their turn
constexpr qint64 MostUnsent = 262144; // bytes, ahead of what the other side has taken

} // namespace

HttpConnection::HttpConnection(QTcpSocket *newSocket, Answering newAnswering, std::function<void()> newOnEnd)
    : socket(newSocket), answering(std::move(newAnswering)), onEnd(std::move(newOnEnd))
{
    socket->setReadBufferSize(MostUnread);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    QObject::connect(socket.get(), &QTcpSocket::readyRead, socket.get(), [this] { read(); });
    QObject::connect(socket.get(), &QTcpSocket::bytesWritten, socket.get(), [this] { written(); });
    QObject::connect(socket.get(), &QTcpSocket::disconnected, socket.get(), [this] { end(); });
    patience.setSingleShot(true);
    QObject::connect(&patience, &QTimer::timeout, &patience, [this] { timeIsOver(); });
    patience.start(RequestPatience);
}

HttpConnection::~HttpConnection()
{
    socket->disconnect();
}

void HttpConnection::read()
{
    if (stream || isClosing) {
        socket->readAll(); // nothing more is asked here
        return;
    }
    // What is sent waits for the other side, and the next request waits for that.
    while (socket->bytesToWrite() < MostUnsent) {
        if (!reader.isWithinRequest() && socket->bytesAvailable() > 0) {
            patience.start(RequestPatience);
        }
        reader.add(socket->readAll());
        RequestReader::Result result = reader.next();
        if (result.error != 0) {
            refuseRequest(result.error);
            return;
        }
        if (!result.request) {
            return;
        }
        answer(*result.request);
        if (stream || isClosing) {
            return;
        }
    }
}

void HttpConnection::answer(const Request &received)
{
    Request request = received;
    request.peer = socket->peerAddress();
    patience.start(IdlePatience);
    Answer answer = answering(request);
    const bool isHead = request.method == "HEAD";
    const bool streams = answer.stream && !isHead;
    send(answer, request.keepAlive && !streams, !isHead);
    if (streams) {
        stream = std::move(answer.stream);
        tell();
    }
}

void HttpConnection::send(const Answer &answer, bool keepAlive, bool withBody)
{
    socket->write(head(answer, keepAlive));
    if (withBody) {
        socket->write(answer.body);
    }
    if (!keepAlive && !answer.stream) {
        isClosing = true;
        socket->disconnectFromHost(); // once it is sent
    }
}

void HttpConnection::refuse(int status, const QByteArray &text)
{
    patience.start(RequestPatience);
    send(Answer::error(status, text), false, true);
}

void HttpConnection::refuseRequest(int status)
{
    // More of it may be on its way. Who is still sending would not get the answer from a socket that is
    // closed.
    isClosing = true;
    patience.start(ClosingPatience);
    const Answer answer = Answer::error(status, "this is no request that can be read"_ba);
    socket->write(head(answer, false) + answer.body);
}

void HttpConnection::tell()
{
    while (stream && socket->bytesToWrite() < MostUnsent) {
        const QByteArray next = stream->next();
        if (next.isEmpty()) {
            return;
        }
        socket->write(next);
    }
}

void HttpConnection::written()
{
    if (isClosing) {
        return;
    }
    if (stream || !reader.isWithinRequest()) {
        patience.start(IdlePatience);
    }
    if (stream) {
        tell();
    } else {
        read();
    }
}

void HttpConnection::timeIsOver()
{
    if (stream && socket->bytesToWrite() == 0) {
        patience.start(IdlePatience);
    } else if (!isClosing && reader.isWithinRequest()) {
        refuse(408, "the request took too long"_ba);
    } else {
        end();
    }
}

void HttpConnection::end()
{
    if (!std::exchange(hasEnded, true)) {
        patience.stop();
        onEnd();
    }
}

} // namespace Monitor
