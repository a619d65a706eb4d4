// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/databaselock.h"

#include <sqlite3.h>

namespace {

constexpr int Patience = 60'000; // ms

void run(sqlite3 *connection, const char *statement)
{
    if (sqlite3_exec(connection, statement, nullptr, nullptr, nullptr) != SQLITE_OK) {
        qFatal("%s: %s", statement, sqlite3_errmsg(connection));
    }
}

// In a transaction a lock once taken stays until its end.
void beginReading(sqlite3 *connection)
{
    run(connection, "BEGIN; SELECT * FROM sqlite_master");
}

} // namespace

void DatabaseLock::Close::operator()(sqlite3 *connection) const
{
    sqlite3_close(connection);
}

DatabaseLock::Connection DatabaseLock::open(const QString &databaseFile)
{
    sqlite3 *connection = nullptr;
    // Serialised, since a thread may end what another began.
    if (sqlite3_open_v2(databaseFile.toUtf8().constData(), &connection,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr) != SQLITE_OK) {
        qFatal("cannot open %s", qPrintable(databaseFile));
    }
    return Connection(connection);
}

DatabaseLock::DatabaseLock(const QString &databaseFile, Kind kind) : holder(open(databaseFile))
{
    switch (kind) {
    case Shared:
        beginReading(holder.get());
        break;
    case Reserved:
        run(holder.get(), "BEGIN IMMEDIATE");
        break;
    case Pending:
        reader = open(databaseFile);
        run(holder.get(), "BEGIN IMMEDIATE; UPDATE config SET database_version = database_version");
        beginReading(reader.get());
        if (sqlite3_exec(holder.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_BUSY) {
            qFatal("the commit does not wait for the reader");
        }
        break;
    case Exclusive:
        run(holder.get(), "BEGIN EXCLUSIVE");
        break;
    case WholeFile:
        run(holder.get(), "PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE");
        break;
    }
}

DatabaseLock::~DatabaseLock()
{
    release();
}

void DatabaseLock::execute(const char *statement)
{
    run(holder.get(), statement);
}

void DatabaseLock::release()
{
    {
        const std::lock_guard guard(mutex);
        isOver = true;
    }
    changed.notify_all();
    if (waiting.joinable()) {
        waiting.join();
    }
    end();
}

void DatabaseLock::releaseAfter(std::chrono::milliseconds delay)
{
    if (waiting.joinable()) {
        return;
    }
    waiting = std::thread([this, delay] {
        std::unique_lock guard(mutex);
        changed.wait_for(guard, delay, [this] { return isOver; });
        end();
    });
}

void DatabaseLock::end()
{
    if (holder) {
        reader.reset();
        sqlite3_busy_timeout(holder.get(), Patience); // somebody may be reading just now
        run(holder.get(), "COMMIT");
        holder.reset();
    }
}
