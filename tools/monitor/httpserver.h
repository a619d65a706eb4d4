// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/monitor/httpconnection.h"

#include <QTcpServer>
#include <QTimer>

#include <list>

namespace Monitor {

// The listening socket and its connections. Their number is bounded: a new one beyond it takes the place of
// the one that has waited longest for its next request.
class HttpServer
{
public:
    static constexpr size_t MostConnections = 400;
    static constexpr size_t MostStreams = 64;
    static constexpr qint64 MostUnsent =
        33554432; // bytes to all together; more is not begun until some have taken theirs

    explicit HttpServer(HttpConnection::Answering answering, HttpConnection::Patience patience = {});
    Q_DISABLE_COPY_MOVE(HttpServer)

    // False: error() tells why.
    bool listen(const QHostAddress &address, quint16 port);
    QString error() const { return listener.errorString(); }
    quint16 port() const { return listener.serverPort(); }

    // Each stream sends what it has to tell.
    void tellStreams();
    size_t streams() const;

private:
    using Places = std::list<std::unique_ptr<HttpConnection>>;

    void accept();
    bool hasRoom() const;
    qint64 unsent() const;
    bool makeRoom();
    Answer answer(Places::iterator place, const Request &request);

    const HttpConnection::Answering answering;
    const HttpConnection::Patience patience;
    QTcpServer listener;
    QTimer again;  // to accept, where the system had no descriptor left
    Places places; // in the order of their last requests
    Places ended;  // to be destroyed when their own signals have returned
};

} // namespace Monitor
