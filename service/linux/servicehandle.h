// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Handles of the service manager and of the services that it opens.
#pragma once

#include "service/scm.h"

#include <QString>

namespace Linux {

struct ServiceHandle
{
    QString unit; // without ".service"; empty: the manager itself
};

// The handle's service; null, and the last error set, when it is none.
const ServiceHandle *serviceOf(Scm::Handle handle);

Scm::Handle openScManager(const Scm::Char *machine, const Scm::Char *database, Scm::Dword access);
Scm::Bool closeServiceHandle(Scm::Handle handle);

} // namespace Linux
