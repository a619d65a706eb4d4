// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The calling thread's last error, in Windows' numbers, and the texts for them.
#pragma once

#include "service/scm.h"

#include <QString>

namespace Linux {

// Errors beyond those that the service host itself looks at.
enum Error : Scm::Dword {
    ErrorInvalidHandle = 6,
    ErrorWriteFault = 29,
    ErrorInvalidParameter = 87,
    ErrorInvalidName = 123,
    ErrorInvalidLevel = 124,
    ErrorRequestTimeout = 1053,
    ErrorInvalidServiceAccount = 1057,
    ErrorServiceDisabled = 1058,
    ErrorCannotAcceptControl = 1061,
    ErrorProcessAborted = 1067,
    ErrorMarkedForDelete = 1072,
    ErrorNotInExecutable = 1083,
    ErrorManagerUnavailable = 1722,
};

// Remembers the error for this thread; false, so that a failing function can return it.
Scm::Bool fail(Scm::Dword error);

Scm::Dword lastError();

QString errorText(Scm::Dword error);

} // namespace Linux
