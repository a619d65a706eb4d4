// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The installed services: unit files. Creating, finding, describing and deleting them.
#pragma once

#include "service/scm.h"

namespace Linux {

// What queryServiceConfig() fills in; the texts follow it in the caller's buffer.
struct ServiceConfig
{
    Scm::Dword serviceType;
    Scm::Dword startType;
    Scm::Dword errorControl;
    Scm::Char *binaryPath;
    Scm::Char *loadOrderGroup;
    Scm::Dword tagId;
    Scm::Char *dependencies;
    Scm::Char *account;
    Scm::Char *displayName;
};

// Writes the unit file and makes systemd read it; the password is not needed. binaryPath is a program's full
// path, without arguments. 1073: there is such a unit; 1072: it is deleted but still runs; 1057: no such
// account; 123: the name makes no unit name, or the path or display name no path.
Scm::Handle createService(Scm::Handle manager, const Scm::Char *name, const Scm::Char *displayName,
                          Scm::Dword access, Scm::Dword type, Scm::Dword startType, Scm::Dword errorControl,
                          const Scm::Char *binaryPath, const Scm::Char *loadOrderGroup, Scm::Dword *tagId,
                          const Scm::Char *dependencies, const Scm::Char *account, const Scm::Char *password);

// 1060 when there is no such unit. A service that was deleted while it ran can be opened until it stops.
Scm::Handle openService(Scm::Handle manager, const Scm::Char *name, Scm::Dword access);

// Disables the unit and removes its file. A running service goes on. A unit that this program did not install
// (a package's, say) is not touched: access denied.
Scm::Bool deleteService(Scm::Handle service);

// Level 1 (the description) only.
Scm::Bool changeServiceConfig2(Scm::Handle service, Scm::Dword infoLevel, void *info);

Scm::Bool queryServiceConfig(Scm::Handle service, void *config, Scm::Dword size, Scm::Dword *needed);
Scm::Bool queryServiceConfig2(Scm::Handle service, Scm::Dword infoLevel, quint8 *buffer, Scm::Dword size,
                              Scm::Dword *needed);

} // namespace Linux
