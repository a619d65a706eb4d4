// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"

#include <QHostAddress>
#include <QString>

namespace Console {

// The first IPv4 address of the host of this name, by the system's resolver, for as long as that takes. A
// test links a definition of its own, and asks nobody.
Parsed<QHostAddress> lookUp(const QString &name);

} // namespace Console
