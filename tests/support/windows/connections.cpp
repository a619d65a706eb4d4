// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/connections.h"

#include <QHostAddress>

#include <winsock2.h>

namespace {

constexpr SOCKET HandleLimit = 0x10000;
constexpr SOCKET HandleStep = 4; // handles are multiples of four

quint16 peerPort(SOCKET handle)
{
    sockaddr_in address{};
    int size = sizeof address;
    if (getpeername(handle, reinterpret_cast<sockaddr *>(&address), &size) != 0 ||
        address.sin_family != AF_INET) {
        return 0;
    }
    return ntohs(address.sin_port);
}

} // namespace

void reset(QTcpSocket &socket)
{
    const linger abortive{1, 0};
    if (setsockopt(static_cast<SOCKET>(socket.socketDescriptor()), SOL_SOCKET, SO_LINGER,
                   reinterpret_cast<const char *>(&abortive), sizeof abortive) != 0) {
        qFatal("no linger option");
    }
    socket.abort();
}

void breakPeerOf(const QTcpSocket &socket)
{
    for (SOCKET handle = HandleStep; handle < HandleLimit; handle += HandleStep) {
        if (peerPort(handle) == socket.localPort()) {
            shutdown(handle, SD_RECEIVE);
            return;
        }
    }
    qFatal("no peer");
}
