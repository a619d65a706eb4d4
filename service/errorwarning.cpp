// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/errorwarning.h"

#include "service/platform.h"

#include <QtGlobal>

void warnWithLastError(const char *message)
{
    // Not qErrnoWarning() itself: it knows the codes of the operating system, not those of the table.
    const QString error = platform.errorText(platform.lastError());
    qCritical("%s (%s)", message, qUtf8Printable(error));
}
