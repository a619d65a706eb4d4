// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QtGlobal>

#include <netinet/in.h>

// An IPv4 address and port, both in host order, as the system's calls take them.
inline sockaddr_in socketAddress(quint32 address, quint16 port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}
