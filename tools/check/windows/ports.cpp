// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/ports.h"

#include <algorithm>
#include <vector>

#include <winsock2.h>

#include <ws2tcpip.h>

#include <iphlpapi.h>

namespace CheckTool {

namespace {

quint16 portOf(DWORD networkOrder)
{
    return ntohs(static_cast<u_short>(networkOrder));
}

// get: asks for the table, of which Table is the form, with a buffer and its size.
template<typename Table, typename Get>
bool isListed(quint16 port, const Get &get)
{
    DWORD size = 0;
    get(nullptr, &size);
    std::vector<DWORD> buffer(size / sizeof(DWORD) + 1024); // it may have grown meanwhile
    size = static_cast<DWORD>(buffer.size() * sizeof(DWORD));
    if (get(buffer.data(), &size) != NO_ERROR) {
        return false;
    }
    const auto *const table = reinterpret_cast<const Table *>(buffer.data());
    return std::any_of(table->table, table->table + table->dwNumEntries,
                       [port](const auto &row) { return portOf(row.dwLocalPort) == port; });
}

} // namespace

bool isListenedAt(Protocol protocol, quint16 port)
{
    if (protocol == Protocol::Udp) {
        const auto udp = [](ULONG family) {
            return [family](void *table, DWORD *size) {
                return GetExtendedUdpTable(table, size, FALSE, family, UDP_TABLE_BASIC, 0);
            };
        };
        return isListed<MIB_UDPTABLE>(port, udp(AF_INET)) || isListed<MIB_UDP6TABLE>(port, udp(AF_INET6));
    }
    const auto tcp = [](ULONG family) {
        return [family](void *table, DWORD *size) {
            return GetExtendedTcpTable(table, size, FALSE, family, TCP_TABLE_OWNER_PID_LISTENER, 0);
        };
    };
    return isListed<MIB_TCPTABLE_OWNER_PID>(port, tcp(AF_INET)) ||
           isListed<MIB_TCP6TABLE_OWNER_PID>(port, tcp(AF_INET6));
}

quint16 firstPortForAll()
{
    return 0;
}

void endSending(qintptr socket)
{
    ::shutdown(static_cast<SOCKET>(socket), SD_SEND);
}

} // namespace CheckTool
