// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/sqlite.h"

#include <QSqlDriver>
#include <QVariant>

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
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

// SQLite's type of a read call: descriptor, buffer, number of bytes, offset. Where SQLite reads by calls of
// other names (Windows), it tells a fault from damage by itself.
using ReadCall = ptrdiff_t (*)(int, void *, size_t, qint64);
constexpr std::array ReadCalls = {"pread", "pread64"};
std::array<ReadCall, ReadCalls.size()> systemsReadCalls{};

template<size_t Index>
ptrdiff_t readOrFail(int file, void *bytes, size_t count, qint64 offset)
{
    const ptrdiff_t read = systemsReadCalls[Index](file, bytes, count, offset);
    if (read < 0 && (errno == EIO || errno == ENXIO || errno == ERANGE)) {
        errno = EAGAIN; // one that SQLite does not take for damage
    }
    return read;
}

template<size_t Index>
void replaceReadCall(sqlite3_vfs &system)
{
    const auto own = reinterpret_cast<sqlite3_syscall_ptr>(readOrFail<Index>);
    const sqlite3_syscall_ptr present =
        system.iVersion >= 3 ? system.xGetSystemCall(&system, ReadCalls[Index]) : nullptr;
    if (present && present != own) {
        systemsReadCalls[Index] = reinterpret_cast<ReadCall>(present);
        system.xSetSystemCall(&system, ReadCalls[Index], own);
    }
}

} // namespace

void disableMemoryStatistics()
{
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

void tellFaultsFromDamage()
{
    if (sqlite3_vfs *const system = sqlite3_vfs_find(nullptr)) {
        replaceReadCall<0>(*system);
        replaceReadCall<1>(*system);
    }
}

sqlite3 *handle(const QSqlDatabase &database)
{
    const QVariant handle = database.driver()->handle();
    return handle.isValid() ? *static_cast<sqlite3 *const *>(handle.constData()) : nullptr;
}

bool isReadOnly(const QSqlDatabase &database)
{
    return sqlite3_db_readonly(handle(database), "main") == 1;
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

void whileHindered(const QDeadlineTimer &deadline, const std::function<bool()> &attempt)
{
    auto pause = FirstPause;
    while (attempt() && !deadline.hasExpired()) {
        // Some systems do not sleep at all for less than the first pause.
        std::this_thread::sleep_for(std::clamp(deadline.remainingTimeAsDuration(), FirstPause, pause));
        pause = std::min(2 * pause, LongestPause);
    }
}

} // namespace QMR::Sqlite
