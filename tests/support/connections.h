// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Faults of TCP connections that Qt has no call for.
#pragma once

#include <QTcpSocket>

// Ends the connection with a reset instead of a close.
void reset(QTcpSocket &socket);

// From now on the server's end of a connection made within this process fails when it is used, and not as one
// does that the peer has closed.
void breakConnection(QTcpSocket &socket);

// Windows calls a write to a connection that the peer has reset an error of the network; Linux says that the
// peer has closed it.
bool isWriteAfterResetANetworkError();

// Wine 8 does not tell of an end that comes while bytes before it are still unread, or before the connection
// is accepted. Windows does.
bool isEndOfConnectionLost();
