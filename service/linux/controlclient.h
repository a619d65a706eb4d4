// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The other end of the control socket: a control for a running service.
#pragma once

#include "service/linux/controlprotocol.h"

#include <QByteArray>

namespace Linux {

// Sends the control and waits for the answer, milliseconds at most. Without an answer the answer's error
// tells why: access denied; service not active (nothing listens there); request time-out.
ControlAnswer sendControl(const QByteArray &socketPath, Scm::Dword control, int milliseconds);

} // namespace Linux
