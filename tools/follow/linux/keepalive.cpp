// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/keepalive.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace Follow {

namespace {

void set(qintptr socket, int level, int option, int value)
{
    ::setsockopt(static_cast<int>(socket), level, option, &value, sizeof value);
}

} // namespace

void keepAlive(qintptr socket)
{
    set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    set(socket, IPPROTO_TCP, TCP_KEEPIDLE, 20); // s
    set(socket, IPPROTO_TCP, TCP_KEEPINTVL, 5); // s
    set(socket, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

} // namespace Follow
