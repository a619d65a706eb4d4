// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The versions of the database's schema, and the ways between them.
#pragma once

#include <QStringList>

#include <optional>

namespace QMR {

constexpr int CurrentSchema = 3;

// What makes a database of this version one of the current schema, in one transaction; no statements where it
// is one. Nothing: no way leads there.
std::optional<QStringList> upgradeStatements(int version);

} // namespace QMR
