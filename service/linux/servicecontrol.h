// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Starting an installed service, asking for its state and sending it controls.
#pragma once

#include "service/scm.h"

namespace Linux {

// The state as systemd has it. The controls that the service accepts are not known to systemd and stay 0.
Scm::Bool queryServiceStatus(Scm::Handle service, Scm::Status *status);

// Starts the unit and waits until its process has reported that it is starting, not until it runs. 1056: it
// is not stopped; 1058: it is masked; 1067: its process ended at once, and the unit is stopped again; 1053:
// it never reported.
Scm::Bool startService(Scm::Handle service, Scm::Dword argc, const Scm::Char **argv);

// status: filled in when the control was carried out. 1052: not accepted by the service; 1061: it is starting
// or stopping; 1062: it does not run; 87: no control that can be sent; 1053: no answer.
Scm::Bool controlService(Scm::Handle service, Scm::Dword control, Scm::Status *status);

} // namespace Linux
