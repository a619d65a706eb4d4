// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Both ends of the socket by which a running service is sent controls. A connection carries one packet each
// way: the control's number, then a ControlAnswer. Both ends are one program on one machine, so a packet is
// the value as it lies in memory, and its size is all there is to check.
#pragma once

#include "service/scm.h"

#include <QByteArray>
#include <QDeadlineTimer>

#include <functional>
#include <list>
#include <vector>

#include <poll.h>

namespace Linux {

constexpr auto ControlSocketName = "/control"; // below the service's runtime directory
constexpr int AnswerMilliseconds = 2000;       // a service that has not answered by then is taken for frozen

// What became of a control: a pause, a continuation, an interrogation or a user code. A stop is systemd's.
struct ControlAnswer
{
    Scm::Dword error = 0; // 0: the control was carried out
    Scm::Dword state = 0;
    Scm::Dword controlsAccepted = 0;
    Scm::Dword exitCode = 0;
};

// Sends the control and waits for the answer. Without one the answer's error tells why: access denied;
// service not active (nothing listens there); request time-out.
ControlAnswer sendControl(const QByteArray &socketPath, Scm::Dword control,
                          int milliseconds = AnswerMilliseconds);

// The service's end. It never waits for a client: what a client may cost is a descriptor and a few seconds.
// It must not be moved between threads while in use.
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

    // Does what can be done without waiting; handler is called once for each request.
    void serve(const Handler &handler);

private:
    struct Connection
    {
        int descriptor;
        QDeadlineTimer deadline;
    };

    void acceptAll(const Handler &handler);

    QByteArray file;
    int listener = -1;
    QDeadlineTimer acceptAgain{0};     // after an accept error
    std::list<Connection> connections; // oldest first; none has sent anything
};

} // namespace Linux
