// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/clock.h"
#include "db/owedwrites.h"
#include "db/rowwriter.h"
#include "db/statements.h"

#include <QTimer>

#include <chrono>
#include <functional>
#include <vector>

namespace QMR {

// What became of a write. Stored: or is in the open transaction. Locked: somebody else's lock is in its way,
// and in that of any other.
enum class WriteResult : quint8 { Stored, Failed, Locked };

// Makes the writes of many radios one transaction, so that they wait for the disk once. Each is a savepoint
// in it and fails by itself; when the whole transaction is lost, what went well in it is written again one by
// one. For one opened database: to be gone before it is closed. What is open by then is rolled back.
class WriteGroup
{
public:
    // failed: is called for each write that fails, once; a retry is not reported. stored: is called after
    // each commit, when whatever was to wait for it may go on.
    WriteGroup(sqlite3 *connection, std::function<void(WriteStep)> failed, std::function<void()> stored);
    ~WriteGroup();
    Q_DISABLE_COPY_MOVE(WriteGroup)

    // Inside a turn the write joins the group; otherwise it is stored, or has failed, on return.
    WriteResult write(RowWrite write);

    // Tries an owed write again, without a record.
    WriteResult retry(RowWrite::Kind kind, SubscriberRow row);
    // Whether somebody else's lock has outlasted the patience, and nothing has been committed since.
    bool isLockedOut() const { return lockOutlasted; }

    // How long the writes of one group, all together, wait for somebody else's lock.
    void setLockPatience(std::chrono::milliseconds patience) { lockPatience = patience; }
    static constexpr std::chrono::milliseconds LockPatience{250};

    // Ends the group. A group that is not open is ended too.
    void commit();

    // Whether something that depends on what is written now has to wait for the commit.
    bool isOpen() const { return turnDepth > 0 || isKeptOpen(); }

    size_t size() const { return written.size(); }
    const OwedWrites &owed() const { return owedWrites; }

private:
    friend class WriteTurn;

    WriteResult join(RowWrite write);
    // mayBeStored: a commit that had it in it has failed, but may have stored it all the same.
    WriteResult writeAlone(const RowWrite &write, bool mayBeStored);
    std::optional<WriteStep> writeInSavepoint(const RowWrite &write);
    // The result of the last of them; a lock that one has met is that one's too.
    WriteResult writeAgain(bool mayBeStored);
    WriteResult commitTransaction();
    void end();
    void succeed(const RowWrite &write);
    WriteResult fail(const RowWrite &write, WriteStep step, int resultCode, bool mayBeStored);
    bool isAbsent(const Esn &esn);
    void stayOpen();
    bool isKeptOpen() const { return dueTimer.isActive(); }

    int lastResult() const;
    bool isLost() const;
    bool begin();
    void rollBack();
    static int waitForLock(void *group, int tries);

    sqlite3 *connection;
    SubscriberStatements statements;
    RowWriter writer;
    OwedWrites owedWrites;
    std::function<void(WriteStep)> reportFailure;
    std::function<void()> reportStored;

    std::vector<RowWrite> written; // in the open transaction, in order
    bool transactionOpen = false;
    int turnDepth = 0;
    int turnsTaken = 0;                               // in this group
    TimeSlice life{std::chrono::nanoseconds::zero()}; // from its first turn
    QTimer dueTimer; // runs while the group is kept open: what it is kept for may never come

    std::chrono::milliseconds lockPatience = LockPatience;
    std::chrono::nanoseconds lockWaited{}; // in this group
    bool lockOutlasted = false;
};

// Keeps a group open for its lifetime; turns nest. The end of the outermost one commits.
class WriteTurn
{
public:
    enum Beginning {
        Anew,    // what is open from before is committed first
        Continue // it goes on with what a turn before has kept open
    };

    // group: null where no database is open, and so nothing is to be kept together.
    explicit WriteTurn(WriteGroup *group, Beginning beginning = Anew);
    ~WriteTurn();
    Q_DISABLE_COPY_MOVE(WriteTurn)

    // More is coming at once: the group stays open beyond this turn, unless it is full or 20 ms old.
    void keepOpen() { kept = true; }

private:
    WriteGroup *group;
    bool kept = false;
};

} // namespace QMR
