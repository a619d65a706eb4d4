// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The service's end of its control socket. It never waits for a client: what a client may cost is a few bytes
// and a few seconds. It must not be moved between threads while in use.
#pragma once

#include "service/linux/controlprotocol.h"

#include <QByteArray>
#include <QDeadlineTimer>

#include <functional>
#include <list>
#include <vector>

#include <poll.h>

namespace Linux {

class ControlSocket
{
public:
    using Handler = std::function<ControlAnswer(Scm::Dword control)>;

    static constexpr size_t MaximumConnections = 32; // one more drops the oldest
    static constexpr int PatienceMilliseconds = 5000;

    // Makes a socket file that only its owner can open, and listens there. A file that a killed process left
    // is replaced. When that fails there is no socket, and the service does without.
    explicit ControlSocket(const QByteArray &path);
    ~ControlSocket();
    ControlSocket(const ControlSocket &) = delete;
    ControlSocket &operator=(const ControlSocket &) = delete;

    bool isOpen() const { return listener >= 0; }

    // What to wait for, and for how long at most (-1: for ever).
    void appendTo(std::vector<pollfd> &descriptors) const;
    int patience() const;

    // Does what can be done without waiting; handler is called once for each whole request.
    void serve(const Handler &handler);

private:
    struct Connection
    {
        int descriptor;
        QByteArray received;
        QDeadlineTimer deadline;
    };

    void acceptAll(const Handler &handler);
    bool admits(int descriptor) const;
    bool isFinished(Connection &connection, const Handler &handler) const;

    QByteArray file;
    int listener = -1;
    QDeadlineTimer acceptAgain{0};     // after an accept error
    std::list<Connection> connections; // oldest first
};

} // namespace Linux
