/* SPDX-FileCopyrightText: 2026 The Quillmere developers
 * SPDX-License-Identifier: MIT
 *
 * Loaded into Wine's server. To let a datagram socket that is bound to one interface's address receive broadcasts, the
 * server binds it to all addresses and ties it to the interface; Wine 8 does so for addresses that no interface lists
 * too, 127.0.0.2 for one, and what the socket sends then comes from 127.0.0.1. A server that can list no interfaces
 * binds where the program asked, as Windows does, and radios on one machine keep addresses of their own.
 */

#include <errno.h>
#include <ifaddrs.h>

int getifaddrs(struct ifaddrs **list)
{
    *list = 0;
    errno = ENOSYS;
    return -1;
}
