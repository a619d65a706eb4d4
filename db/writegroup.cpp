// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"

#include "db/sqlite.h"

#include <QElapsedTimer>
#include <QThread>

#include <sqlite3.h>

#include <utility>

using namespace std::chrono_literals;

namespace QMR {

namespace {

constexpr int MaximumTurns = 256;
constexpr auto MaximumAge = 20ms;

constexpr unsigned long LockPause = 2; // ms

} // namespace

WriteGroup::WriteGroup(sqlite3 *database, std::function<void(WriteStep)> failed, std::function<void()> stored)
    : connection(database),
      statements(database),
      writer(statements),
      reportFailure(std::move(failed)),
      reportStored(std::move(stored))
{
    sqlite3_busy_handler(connection, waitForLock, this);
    dueTimer.setTimerType(Qt::PreciseTimer);
    dueTimer.setInterval(MaximumAge);
    QObject::connect(&dueTimer, &QTimer::timeout, &dueTimer, [this] { commit(); });
}

WriteGroup::~WriteGroup()
{
    rollBack();
    sqlite3_busy_handler(connection, nullptr, nullptr);
}

WriteResult WriteGroup::write(RowWrite write)
{
    if (turnDepth > 0) {
        return join(std::move(write));
    }
    if (isKeptOpen()) {
        commit();
    }
    const WriteResult result = writeAlone(write, false);
    end();
    return result;
}

WriteResult WriteGroup::retry(RowWrite::Kind kind, SubscriberRow row)
{
    return write({kind, std::move(row), true});
}

void WriteGroup::commit()
{
    commitTransaction();
    end();
}

WriteResult WriteGroup::commitTransaction()
{
    if (!transactionOpen) {
        return WriteResult::Stored;
    }
    transactionOpen = false;
    if (statements.commit.run()) {
        lockOutlasted = false;
        for (const RowWrite &write : written) {
            succeed(write);
        }
        written.clear();
        return WriteResult::Stored;
    }
    const bool mayBeStored = !Sqlite::isLock(lastResult());
    rollBack();
    return writeAgain(mayBeStored);
}

void WriteGroup::end()
{
    dueTimer.stop();
    turnsTaken = 0;
    lockWaited = {};
    reportStored();
}

WriteResult WriteGroup::join(RowWrite write)
{
    if (!transactionOpen) {
        transactionOpen = begin();
        if (!transactionOpen) {
            return fail(write, firstStep(write.kind), lastResult(), false);
        }
    }
    const auto failedStep = writeInSavepoint(write);
    if (!failedStep) {
        written.push_back(std::move(write));
        return WriteResult::Stored;
    }
    // Taken before the roll-back, which has a result of its own.
    const int resultCode = lastResult();
    if (isLost()) {
        written.push_back(std::move(write));
        return writeAgain(false);
    }
    statements.rollbackToSavepoint.run();
    statements.release.run();
    if (Sqlite::isPassing(resultCode) && !Sqlite::isLock(resultCode)) {
        // By itself it may need less of what the group has used up: room for the journal, memory.
        const WriteResult others = commitTransaction();
        const WriteResult result = writeAlone(write, false);
        return others == WriteResult::Locked ? others : result;
    }
    return fail(write, *failedStep, resultCode, false);
}

std::optional<WriteStep> WriteGroup::writeInSavepoint(const RowWrite &write)
{
    if (!statements.savepoint.run()) {
        return firstStep(write.kind);
    }
    if (const auto failedStep = writer.write(write, owedWrites.of(write.row.esn))) {
        return failedStep;
    }
    return statements.release.run() ? std::nullopt : std::optional(lastStep(write.kind));
}

WriteResult WriteGroup::writeAlone(const RowWrite &write, bool mayBeStored)
{
    // A commit that failed behind its storing step can have stored this write, and those that followed it:
    // its row may be there already, or gone again.
    const auto debt = mayBeStored ? OwedWrites::Debt::Unknown : owedWrites.of(write.row.esn);
    std::optional<WriteStep> failedStep;
    if (!begin()) {
        failedStep = firstStep(write.kind);
    } else {
        failedStep = writer.write(write, debt);
        if (!failedStep && !statements.commit.run()) {
            failedStep = lastStep(write.kind);
            mayBeStored = mayBeStored || !Sqlite::isLock(lastResult());
        }
    }
    if (failedStep) {
        const int resultCode = lastResult();
        rollBack();
        return fail(write, *failedStep, resultCode, mayBeStored);
    }
    lockOutlasted = false;
    succeed(write);
    return WriteResult::Stored;
}

// The transaction is lost with all that went well in it: each write is now tried by itself. A lock that one
// has met is in the way of all.
WriteResult WriteGroup::writeAgain(bool mayBeStored)
{
    transactionOpen = false;
    bool locked = false;
    WriteResult result = WriteResult::Stored;
    for (const RowWrite &write : std::exchange(written, {})) {
        if (locked) {
            result = fail(write, lastStep(write.kind), SQLITE_BUSY, mayBeStored);
        } else {
            result = writeAlone(write, mayBeStored);
            locked = result == WriteResult::Locked;
        }
    }
    return result;
}

void WriteGroup::succeed(const RowWrite &write)
{
    if (write.isLatest) {
        owedWrites.settle(write.row.esn);
    }
}

WriteResult WriteGroup::fail(const RowWrite &write, WriteStep step, int resultCode, bool mayBeStored)
{
    const bool isLocked = Sqlite::isLock(resultCode);
    if (isLocked) {
        lockOutlasted = true;
    }
    if (Sqlite::isPassing(resultCode)) {
        // An owed insert is retried as an update.
        const bool inserts =
            write.kind == RowWrite::Insert || owedWrites.of(write.row.esn) == OwedWrites::Debt::Insert;
        bool isAlone = write.isLatest && (!mayBeStored || !inserts || isAbsent(write.row.esn));
        for (RowWrite &earlier : written) {
            if (earlier.row.esn == write.row.esn) {
                earlier.isLatest = false;
                isAlone = false;
            }
        }
        owedWrites.owe(write.row.esn, write.kind, isAlone);
    } else if (resultCode == SQLITE_OK || (write.isRetry && Sqlite::isRefusal(resultCode))) {
        // There is no row to change, or it is not wanted. Any other failure leaves an older debt as it is.
        owedWrites.settle(write.row.esn);
    }
    if (!write.isRetry) {
        reportFailure(step);
    }
    return isLocked ? WriteResult::Locked : WriteResult::Failed;
}

// False also where it cannot be read.
bool WriteGroup::isAbsent(const Esn &esn)
{
    return !writer.rowOf(esn) && lastResult() == SQLITE_OK;
}

// A transaction that could not be ended, for want of memory say, would keep every later one from beginning.
bool WriteGroup::begin()
{
    rollBack();
    return statements.begin.run();
}

int WriteGroup::lastResult() const
{
    return sqlite3_extended_errcode(connection);
}

// SQLite rolls back a whole transaction by itself when the disk is full or fails, or memory runs out.
bool WriteGroup::isLost() const
{
    return sqlite3_get_autocommit(connection) != 0;
}

void WriteGroup::rollBack()
{
    if (!isLost()) {
        statements.rollback.run();
    }
}

void WriteGroup::stayOpen()
{
    if (!isKeptOpen()) {
        dueTimer.start();
    }
}

int WriteGroup::waitForLock(void *group, int)
{
    auto &self = *static_cast<WriteGroup *>(group);
    if (self.lockOutlasted || self.lockWaited >= self.lockPatience) {
        return 0;
    }
    QElapsedTimer pause;
    pause.start();
    QThread::msleep(LockPause);
    self.lockWaited += std::chrono::nanoseconds(pause.nsecsElapsed());
    return 1;
}

WriteTurn::WriteTurn(WriteGroup *writeGroup, Beginning beginning) : group(writeGroup)
{
    if (!group || group->turnDepth++ > 0) {
        return;
    }
    if (beginning == Anew && group->isKeptOpen()) {
        group->commit();
    }
    if (group->turnsTaken++ == 0) {
        group->life = TimeSlice(MaximumAge);
    }
}

WriteTurn::~WriteTurn()
{
    if (!group || --group->turnDepth > 0) {
        return;
    }
    if (kept && group->turnsTaken < MaximumTurns && !group->life.isOver()) {
        group->stayOpen();
    } else {
        group->commit();
    }
}

} // namespace QMR
