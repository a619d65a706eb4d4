// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The functions by which a process is a service: it runs the service main function on a thread of its own,
// brings it the stop control (SIGTERM or SIGINT) and what arrives on the control socket, and tells systemd
// its status.
//
// Controls are handed over one at a time, on the dispatcher's thread. As on Windows none is handed over while
// the service is starting or stopping; a signal that comes early waits until the service runs. SIGHUP is
// ignored.
#pragma once

#include "service/scm.h"

namespace Linux {

// Blocks until the service has reported that it is stopped. Fails with 1063 in a process that systemd did not
// start as a notifying service.
Scm::Bool startServiceCtrlDispatcher(const Scm::TableEntry *table);

// Fails with 1083 where no dispatcher runs. One service a process: the name is not looked at.
Scm::Handle registerServiceCtrlHandler(const Scm::Char *name, Scm::ControlHandler handler);

// From any thread.
Scm::Bool setServiceStatus(Scm::Handle statusHandle, Scm::Status *status);

} // namespace Linux
