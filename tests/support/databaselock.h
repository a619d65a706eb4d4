// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

struct sqlite3;

// What another program keeps locked in a database file, through connections of its own.
class DatabaseLock
{
public:
    enum Kind {
        Shared,    // it reads
        Reserved,  // it writes, others may still read
        Pending,   // its commit waits for a third program's read to end, and lets nobody else begin one
        Exclusive, // nobody else may even read; with a write-ahead log, the same as Reserved
        WholeFile, // locking_mode EXCLUSIVE: nobody else may read, with a write-ahead log either
    };

    // It is held from here on. Fails the process when it cannot be had: the test is wrong.
    DatabaseLock(const QString &databaseFile, Kind kind);
    ~DatabaseLock();
    Q_DISABLE_COPY_MOVE(DatabaseLock)

    // Runs SQL on the connection that holds it.
    void execute(const char *statement);
    // Ends it for good, and commits what it wrote.
    void release();
    // The same from a thread of its own, unless it is released before; the first call counts.
    void releaseAfter(std::chrono::milliseconds delay);

private:
    struct Close
    {
        void operator()(sqlite3 *connection) const;
    };
    using Connection = std::unique_ptr<sqlite3, Close>;

    static Connection open(const QString &databaseFile);
    void end();

    Connection holder;
    Connection reader; // what a Pending lock waits for

    std::thread waiting;
    std::mutex mutex;
    std::condition_variable changed;
    bool isOver = false;
};
