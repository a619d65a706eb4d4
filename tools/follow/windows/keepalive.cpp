// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/keepalive.h"

#include <winsock2.h>

#include <mstcpip.h>

namespace Follow {

void keepAlive(qintptr socket)
{
    // Ten questions: not each Windows lets one change that. They take as long as the three on Linux.
    tcp_keepalive settings{1, 20000, 1500}; // on, ms of silence, ms between questions
    DWORD returned = 0;
    ::WSAIoctl(static_cast<SOCKET>(socket), SIO_KEEPALIVE_VALS, &settings, sizeof settings, nullptr, 0,
               &returned, nullptr, nullptr);
}

} // namespace Follow
