// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/scm.h"

#include "service/platform.h"

namespace Scm {

Functions functions{};

bool available()
{
    if (!functions.openScManager) {
        Platform::provide(functions);
    }
    return functions.openScManager != nullptr;
}

} // namespace Scm
