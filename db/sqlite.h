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

// To be called before the first connection is opened: SQLite's account of its own memory, which nobody reads,
// takes a lock at each allocation.
void keepNoAccounts();

// To be called before that too: SQLite takes a file that the system fails to read for a damaged one, and what
// is damaged is replaced. From then on it is a fault that may pass.
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

// Makes the attempt, and again after a growing pause while it says that something is in its way that may
// pass, a lock say, and time is left. SQLite's own wait for locks is not enough: it is not made where a
// transaction that reads comes to write.
void whileHindered(const QDeadlineTimer &deadline, const std::function<bool()> &attempt);

} // namespace QMR::Sqlite
