// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// SQLite itself, where Qt's driver over it does not tell enough.
#pragma once

#include <QSqlDatabase>

struct sqlite3;

namespace QMR::Sqlite {

// The connection's own handle; null while it is closed.
sqlite3 *handle(const QSqlDatabase &database);

// Somebody else keeps the file locked. resultCode: SQLite's, extended or not, as it stands in a driver's error.
bool isLock(int resultCode);

// What failed may succeed later as it is: a lock, a full disk, no memory, no descriptor, a read-only or
// faulty file. What the database refuses for its content is none of these.
bool isPassing(int resultCode);

} // namespace QMR::Sqlite
