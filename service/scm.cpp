// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/scm.h"

#include "service/platform.h"

namespace Scm {

Functions functions{};
Source source{Platform::provide, Platform::lastError, Platform::errorText, Platform::registerMessageFile,
              Platform::removeMessageFile};

bool available()
{
    if (!functions.openScManager) {
        source.provide(functions);
    }
    return functions.openScManager != nullptr;
}

} // namespace Scm
