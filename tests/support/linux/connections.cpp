// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/connections.h"

#include <QHostAddress>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int DescriptorLimit = 4096;

quint16 peerPort(int descriptor)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getpeername(descriptor, reinterpret_cast<sockaddr *>(&address), &size) != 0 ||
        address.sin_family != AF_INET) {
        return 0;
    }
    return ntohs(address.sin_port);
}

} // namespace

void reset(QTcpSocket &socket)
{
    const linger abortive{1, 0};
    if (setsockopt(static_cast<int>(socket.socketDescriptor()), SOL_SOCKET, SO_LINGER, &abortive,
                   sizeof abortive) != 0) {
        qFatal("no linger option");
    }
    socket.abort();
}

void breakConnection(QTcpSocket &socket)
{
    for (int descriptor = 0; descriptor < DescriptorLimit; ++descriptor) {
        if (peerPort(descriptor) == socket.localPort()) {
            const int other = open("/dev/null", O_WRONLY | O_CLOEXEC);
            if (dup2(other, descriptor) != descriptor) {
                qFatal("cannot replace a descriptor");
            }
            close(other);
            return;
        }
    }
    qFatal("no peer");
}

bool isWriteAfterResetANetworkError()
{
    return false;
}

bool isEndOfConnectionLost()
{
    return false;
}
