// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Faults of TCP connections that Qt has no call for.
#pragma once

#include <QTcpSocket>

// Ends the connection with a reset instead of a close.
void reset(QTcpSocket &socket);

// From now on every read fails at the server's end of a connection made within this process.
void breakPeerOf(const QTcpSocket &socket);
