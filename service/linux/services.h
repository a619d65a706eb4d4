// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The installed services: unit files, and what systemd makes of them.
#pragma once

#include "service/scm.h"

#include <QString>

namespace Linux {

// What a handle leads to: the service manager or one of its services.
struct ServiceHandle
{
    QString unit; // without ".service"; empty: the manager itself
};

// Full access to the manager is root's: 5 to anyone else.
Scm::Handle openScManager(const Scm::Char *machine, const Scm::Char *database, Scm::Dword access);
Scm::Bool closeServiceHandle(Scm::Handle handle);

// Writes the unit file and makes systemd read it; the password is not needed. binaryPath is a program's full
// path, without arguments. 1073: there is such a unit; 1072: it is deleted but still runs; 1057: no such
// account; 123: the name makes no unit name, the display name no path, or systemd cannot start what is at the
// path.
Scm::Handle createService(Scm::Handle manager, const Scm::Char *name, const Scm::Char *displayName,
                          Scm::Dword access, Scm::Dword type, Scm::Dword startType, Scm::Dword errorControl,
                          const Scm::Char *binaryPath, const Scm::Char *loadOrderGroup, Scm::Dword *tagId,
                          const Scm::Char *dependencies, const Scm::Char *account, const Scm::Char *password);

// 1060 when there is no such unit. A service that was deleted while it ran can be opened until it stops.
Scm::Handle openService(Scm::Handle manager, const Scm::Char *name, Scm::Dword access);

// Disables the unit and removes its file. A running service goes on. What this program did not write (a
// package's unit, an administrator's mask) is not touched: access denied. Where no systemd runs it is done
// all the same.
Scm::Bool deleteService(Scm::Handle service);

// Level 1 (the description) only.
Scm::Bool changeServiceConfig2(Scm::Handle service, Scm::Dword infoLevel, void *info);

// The state as systemd has it; to who cannot ask, a service with a runtime directory runs. The controls that
// the service accepts are not known to systemd and stay 0.
Scm::Bool queryServiceStatus(Scm::Handle service, Scm::Status *status);

// Starts the unit and waits until its process has reported that it is starting, not until it runs. 1056: it
// is not stopped; 1058: it is masked; 1067: its process ended at once, and the unit is stopped again; 1053:
// it never reported.
Scm::Bool startService(Scm::Handle service, Scm::Dword argc, const Scm::Char **argv);

// A stop is systemd's, whether the service accepts one or not; all else goes to the service itself. status:
// filled in when the control was carried out. 1052: not accepted by the service; 1061: it is starting or
// stopping; 1062: it does not run; 87: no control that can be sent; 1053: no answer.
Scm::Bool controlService(Scm::Handle service, Scm::Dword control, Scm::Status *status);

} // namespace Linux
