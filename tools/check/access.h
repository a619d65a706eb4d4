// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/check/finding.h"

namespace CheckTool {

// Where the service keeps its data on this machine.
QString serviceFolder();

// Whether the service's account may use the folder, read the configuration and write the database; those that
// are not there are not looked at. account: empty: the folder's owner. No finding on a platform where the
// service has no account of its own.
Findings checkAccess(const QString &folder, const QString &account);

} // namespace CheckTool
