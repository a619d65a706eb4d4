// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/servicehandle.h"

#include "service/linux/errors.h"

#include <unistd.h>

namespace Linux {

const ServiceHandle *serviceOf(Scm::Handle handle)
{
    const auto *service = static_cast<const ServiceHandle *>(handle);
    if (!service || service->unit.isEmpty()) {
        fail(ErrorInvalidHandle);
        return nullptr;
    }
    return service;
}

Scm::Handle openScManager(const Scm::Char *, const Scm::Char *, Scm::Dword access)
{
    // As on Windows: anybody may look and ask, changing what is installed is the administrator's.
    if (access == Scm::ManagerAllAccess && ::geteuid() != 0) {
        fail(Scm::ErrorAccessDenied);
        return nullptr;
    }
    return new ServiceHandle;
}

Scm::Bool closeServiceHandle(Scm::Handle handle)
{
    if (!handle) {
        return fail(ErrorInvalidHandle);
    }
    delete static_cast<ServiceHandle *>(handle);
    return 1;
}

} // namespace Linux
