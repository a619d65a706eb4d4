// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/qmra.h"
#include "tools/console.h"

#include <QTcpSocket>
#include <QTimer>

#include <functional>

namespace Follow {

// A connection to a server that comes back by itself, each time after a longer pause, and cuts what it gets
// into notices. Messages of another kind are skipped; what is no message ends it. It notices within a minute
// that a server which says nothing has been cut off.
class Connection
{
public:
    std::function<void()> onConnected;
    std::function<void(const QMR::Qmra::RadioNotice &)> onNotice;
    // pause: ms until the next attempt.
    std::function<void(const QString &reason, qint64 pause)> onLost;

    explicit Connection(Console::Endpoint server);
    Q_DISABLE_COPY_MOVE(Connection)

    void open();
    void send(const QByteArray &message) { socket.write(message); }
    // Of the socket while it is connected, for what Qt has no call for.
    qintptr descriptor() const { return socket.socketDescriptor(); }
    // From here on nothing is called back.
    void stop();

    // 500 ms at first, then twice as long each time, up to 30 s.
    static qint64 pauseBeforeAttempt(int attempt);

private:
    void read();
    void lost(const QString &reason);

    const Console::Endpoint server;
    QTcpSocket socket;
    QTimer again;
    int attempt = 0;
    bool stopped = false;
};

} // namespace Follow
