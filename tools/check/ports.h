// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the system tells of its ports. Nothing is sent and nothing is bound: a server that starts at that
// moment finds the ports as they are.
#pragma once

#include <QtGlobal>

namespace CheckTool {

enum class Protocol : quint8 { Udp, Tcp };

// Whether a program of this machine receives datagrams, or waits for connections, at this port of any
// address.
bool isListenedAt(Protocol protocol, quint16 port);

// Below it a port takes a right that the service has not got by itself.
quint16 firstPortForAll();

// Of a connected TCP socket: nothing more will be sent. Qt has no call for it.
void endSending(qintptr socket);

} // namespace CheckTool
