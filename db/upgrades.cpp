// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/upgrades.h"

using namespace Qt::StringLiterals;

namespace QMR {

std::optional<QStringList> upgradeStatements(int version)
{
    // The stored version deliberately goes from 1 straight to 3.
    const QStringList from2{
        u"ALTER TABLE subscribers ADD COLUMN protocol_version INTEGER NOT NULL DEFAULT 0"_s,
        u"UPDATE subscribers SET protocol_version = (CASE WHEN suid = '' THEN 1 WHEN suid = -1 "
        "THEN 1 WHEN suid = x'00000000000000' THEN 1 ELSE 2 END)"_s,
        u"UPDATE config SET database_version = 3"_s};
    switch (version) {
    case 1:
        return QStringList{u"ALTER TABLE subscribers ADD COLUMN suid BLOB NOT NULL DEFAULT ''"_s,
                           u"CREATE INDEX subscribers_suid_idx ON subscribers(suid)"_s} +
               from2;
    case 2:
        return from2;
    case CurrentSchema:
        return QStringList{};
    default:
        return std::nullopt;
    }
}

} // namespace QMR
