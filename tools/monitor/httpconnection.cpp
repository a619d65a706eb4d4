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
    if (stream || isClosing) {
        socket->readAll(); // nothing more is asked here
        return;
    }
    // What is sent waits for the other side, and the next request waits for that.
    while (socket->bytesToWrite() < MostUnsent) {
        reader.add(socket->readAll());
        RequestReader::Result result = reader.next();
        if (result.error != 0) {
            refuseRequest(result.error, "this is no request that can be read"_ba);
            return;
        }
        if (!result.request) {
            // Only its first bytes begin its time: whoever sends it bit by bit gets no more.
            if (reader.isWithinRequest() && !std::exchange(isRequestDue, true)) {
                deadline.start(patience.request);
            }
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
    isRequestDue = false;
    deadline.start(patience.idle);
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
    deadline.start(patience.request);
    send(Answer::error(status, text), false, true);
}

void HttpConnection::refuseRequest(int status, const QByteArray &text)
{
    // More of it may be on its way. Who is still sending would not get the answer from a socket that is
    // closed.
    isClosing = true;
    deadline.start(patience.closing);
    const Answer answer = Answer::error(status, text);
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
    if (!isRequestDue) {
        deadline.start(patience.idle);
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
