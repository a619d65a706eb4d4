// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/sqlite.h"

#include <QSqlDriver>
#include <QVariant>

#include <sqlite3.h>

#include <algorithm>
#include <thread>

using namespace std::chrono_literals;

namespace QMR::Sqlite {

namespace {

constexpr std::chrono::nanoseconds FirstPause = 1ms;
constexpr std::chrono::nanoseconds LongestPause = 100ms;

// An extended result code tells more in its upper bits.
int primary(int resultCode)
{
    return resultCode & 0xFF;
}

} // namespace

void keepNoAccounts()
{
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

sqlite3 *handle(const QSqlDatabase &database)
{
    const QVariant handle = database.driver()->handle();
    return handle.isValid() ? *static_cast<sqlite3 *const *>(handle.constData()) : nullptr;
}

bool isLock(int resultCode)
{
    switch (primary(resultCode)) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_PROTOCOL: // a write-ahead log whose locks could not be had in many tries
        return true;
    default:
        return false;
    }
}

bool isPassing(int resultCode)
{
    switch (primary(resultCode)) {
    case SQLITE_NOMEM:
    case SQLITE_READONLY:
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
        return true;
    default:
        return isLock(resultCode);
    }
}

bool isRefusal(int resultCode)
{
    return primary(resultCode) == SQLITE_CONSTRAINT;
}

void whileLocked(const QDeadlineTimer &deadline, const std::function<bool()> &attempt)
{
    auto pause = FirstPause;
    while (attempt() && !deadline.hasExpired()) {
        std::this_thread::sleep_for(std::min(pause, deadline.remainingTimeAsDuration()));
        pause = std::min(2 * pause, LongestPause);
    }
}

} // namespace QMR::Sqlite
