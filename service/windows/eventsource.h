// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The message file of an event source, in the registry.
#pragma once

#include <QString>

namespace Windows {

// Nothing is reported when either fails, or when the source has no name.
void registerMessageFile(const QString &source, const QString &file);
void removeMessageFile(const QString &source);

} // namespace Windows
