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

HttpConnection::HttpConnection(QTcpSocket *newSocket, Answering newAnswering, std::function<void()> newOnEnd,
                               Patience newPatience)
    : socket(newSocket), answering(std::move(newAnswering)), onEnd(std::move(newOnEnd)), patience(newPatience)
{
    socket->setReadBufferSize(MostUnread);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    QObject::connect(socket.get(), &QTcpSocket::readyRead, socket.get(), [this] { read(); });
    QObject::connect(socket.get(), &QTcpSocket::bytesWritten, socket.get(), [this] { written(); });
    QObject::connect(socket.get(), &QTcpSocket::disconnected, socket.get(), [this] { end(); });
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, &deadline, [this] { timeIsOver(); });
    deadline.start(patience.request);
}

HttpConnection::~HttpConnection()
{
    socket->disconnect();
}

void HttpConnection::read()
{
    if (hasEnded) {
        return;
    }
    if (stream || isClosing) {
        socket->readAll(); // nothing more is asked here
        return;
    }
    // What is sent waits for the other side, and the next request waits for that.
    if (socket->bytesToWrite() >= MostUnsent) {
        return;
    }
    RequestReader::Result result = reader.next();
    if (!result.request && result.error == 0 && socket->bytesAvailable() > 0) {
        reader.add(socket->readAll());
        result = reader.next();
    }
    if (result.error != 0) {
        refuseRequest(result.error, "this is no request that can be read"_ba);
    } else if (result.request) {
        answer(*result.request);
        readNext();
    } else if (reader.isWithinRequest() && !std::exchange(isRequestDue, true)) {
        // Only its first bytes begin its time: whoever sends it bit by bit gets no more.
        deadline.start(patience.request);
    }
}

void HttpConnection::readNext()
{
    // One request a turn: whoever sends a thousand at once does not keep the others, and the servers,
    // waiting.
    if (!std::exchange(isReadDue, true)) {
        QMetaObject::invokeMethod(
            socket.get(),
            [this] {
                isReadDue = false;
                read();
            },
            Qt::QueuedConnection);
    }
}

void HttpConnection::answer(const Request &received)
{
    Request request = received;
    request.peer = socket->peerAddress();
    isRequestDue = false;
    deadline.start(patience.idle);
    Answer answer = answering(request);
    const bool isHead = request.method == "HEAD";
    const bool streams = answer.stream && !isHead;
    // Who is not served has no claim to a place.
    const bool isLast = !request.keepAlive || answer.status >= 400;
    send(answer, !isHead, isLast || streams, isLast && !streams ? After::Close : After::Stay);
    if (streams) {
        stream = std::move(answer.stream);
        tell();
    }
}

void HttpConnection::send(const Answer &answer, bool withBody, bool isLast, After after)
{
    socket->write(head(answer, !isLast));
    if (withBody) {
        socket->write(answer.body);
    }
    if (after == After::Close) {
        isClosing = true;
        socket->disconnectFromHost(); // once it is sent
    }
}

void HttpConnection::refuse(int status, const QByteArray &text)
{
    deadline.start(patience.request);
    isRefused = true;
    send(Answer::error(status, text), true, true, After::Close);
}

void HttpConnection::refuseRequest(int status, const QByteArray &text)
{
    // More of it may be on its way. Who is still sending would not get the answer from a socket that is
    // closed.
    isClosing = true;
    isRefused = true;
    deadline.start(patience.closing);
    send(Answer::error(status, text), true, true, After::Stay);
}

void HttpConnection::tell()
{
    isHeldUp = false;
    while (stream && !hasEnded) {
        isHeldUp = socket->bytesToWrite() >= MostUnsent;
        const QByteArray next = isHeldUp ? QByteArray() : stream->next();
        if (next.isEmpty()) {
            return;
        }
        socket->write(next);
    }
}

void HttpConnection::written()
{
    if (hasEnded || isRefused) {
        return;
    }
    if (!isRequestDue) {
        deadline.start(patience.idle);
    }
    if (isHeldUp) {
        tell();
    } else if (!stream && !isClosing) {
        readNext();
    }
}

void HttpConnection::timeIsOver()
{
    if (stream && socket->bytesToWrite() == 0) {
        deadline.start(patience.idle);
    } else if (!isClosing && reader.isWithinRequest()) {
        refuseRequest(408, "the request took too long"_ba);
    } else {
        end();
    }
}

void HttpConnection::end()
{
    if (!std::exchange(hasEnded, true)) {
        deadline.stop();
        onEnd();
    }
}

} // namespace Monitor
