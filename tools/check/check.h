// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/report.h"
#include "tools/check/settings.h"

namespace CheckTool {

// Looks at everything, one after the other.
Report check(const Settings &settings);

} // namespace CheckTool
