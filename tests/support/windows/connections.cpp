// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/connections.h"

#include <winsock2.h>

void reset(QTcpSocket &socket)
{
    const linger abortive{1, 0};
    if (setsockopt(static_cast<SOCKET>(socket.socketDescriptor()), SOL_SOCKET, SO_LINGER,
                   reinterpret_cast<const char *>(&abortive), sizeof abortive) != 0) {
        qFatal("no linger option");
    }
    socket.abort();
}

void breakConnection(QTcpSocket &socket)
{
    reset(socket);
}

bool isWriteAfterResetANetworkError()
{
    return true;
}

bool isEndOfConnectionLost()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll"), "wine_get_version") != nullptr;
}
