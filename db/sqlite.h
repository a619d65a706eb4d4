// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// SQLite itself, where Qt's driver over it does not tell enough.
#pragma once

#include <QDeadlineTimer>
#include <QSqlDatabase>

#include <chrono>
#include <functional>

struct sqlite3;

namespace QMR::Sqlite {

// To be called before the first connection is opened. SQLite's statistics of its own memory, which nobody
// reads, take a lock at each allocation.
void disableMemoryStatistics();

// To be called before that too. SQLite takes a file that the system fails to read for a damaged one, and what
// is damaged is replaced; from then on it takes it for one that may be readable later.
void tellFaultsFromDamage();

// The connection's own handle; null while it is closed.
sqlite3 *handle(const QSqlDatabase &database);

bool isReadOnly(const QSqlDatabase &database);

// Somebody else keeps the file locked. resultCode: SQLite's, extended or not, as it stands in a driver's
// error.
bool isLock(int resultCode);

// What failed may succeed later as it is: a lock, a full disk, no memory, no descriptor, a read-only or
// faulty file. What the database refuses for its content is none of these.
bool isPassing(int resultCode);

// The database refuses what is to be written for its content.
bool isRefusal(int resultCode);

// How long a start waits for somebody else's lock: nothing is served yet.
constexpr std::chrono::seconds StartPatience(60);

// Makes an attempt, and again after a growing pause for as long as it is hindered and time is left.
// attempt: returns true where something was in its way that may pass, a lock say. SQLite's own wait for locks
// is not enough: it is not made where a transaction that reads comes to write.
void whileHindered(const QDeadlineTimer &deadline, const std::function<bool()> &attempt);

} // namespace QMR::Sqlite
