// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"

#include <QByteArray>
#include <QUdpSocket>

#include <functional>

namespace RadioTool {

// A radio's socket: bytes and sender in, bytes and receiver out.
class RadioSocket
{
public:
    using Handler = std::function<void(const QByteArray &datagram, const Console::Endpoint &sender)>;
    enum class Outcome { Sent, TryAgain, Failed };

    explicit RadioSocket(Handler handler);

    // port 0: any. False: errorText() tells why.
    bool open(const QHostAddress &address, quint16 port);
    // TryAgain: the system's buffers are full just now.
    Outcome send(const QByteArray &datagram, const Console::Endpoint &receiver);

    Console::Endpoint local() const { return {socket.localAddress(), socket.localPort()}; }
    QString errorText() const { return socket.errorString(); }

    // The address from which this host would speak to the server, or why it cannot.
    static Console::Parsed<QHostAddress> addressTowards(const Console::Endpoint &server);

private:
    void read();

    Handler handler;
    QUdpSocket socket;
};

} // namespace RadioTool
