// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Between the zero-terminated UTF-16 of the service-control functions and Qt's strings.
#pragma once

#include "service/scm.h"

#include <QString>

namespace Linux {

// A null pointer is an empty text.
inline QString toString(const Scm::Char *text)
{
    return text ? QString::fromUtf16(text) : QString();
}

} // namespace Linux
