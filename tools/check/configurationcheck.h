// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/configuration.h"
#include "tools/check/finding.h"

namespace CheckTool {

// What is wrong with the file, a finding each; or one that tells what it sets. configuration: as the server
// will read it, with the defaults where there is no file.
Findings checkConfiguration(const QString &file, QMR::Configuration &configuration);

} // namespace CheckTool
