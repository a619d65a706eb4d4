// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The server's own database connection seen from below: what it runs can be watched, and steps that no SQL
// can make fail are made to fail.
#pragma once

#include <QStringList>

#include <functional>

struct sqlite3;

// The handle of the process's default connection, which must be open.
sqlite3 *serverDatabase();

// Shortens the wait for a lock that somebody else holds; 0 gives up at once.
void setBusyTimeout(int milliseconds);

// Keeps the text of each statement that is run, triggers' aside, on the default connection and on any that is
// opened while this lives. One at a time.
class StatementTrace
{
public:
    // Is called before a statement does anything, with its text. Must leave the statement's own connection
    // alone.
    using Observer = std::function<void(const QString &)>;

    explicit StatementTrace(Observer observer = {});
    ~StatementTrace();
    Q_DISABLE_COPY_MOVE(StatementTrace)

    QStringList take();
};

// Counts the commits of writing transactions on the default connection, and refuses the first ones.
class CommitHook
{
public:
    explicit CommitHook(int refusals = 0);
    ~CommitHook();
    Q_DISABLE_COPY_MOVE(CommitHook)

    int commits() const { return attempts; }

private:
    static int commit(void *hook);

    int attempts = 0;
    int refusals;
};

// Is called at each commit of a writing transaction on the default connection, before it is carried out.
class CommitObserver
{
public:
    explicit CommitObserver(std::function<void()> observer);
    ~CommitObserver();
    Q_DISABLE_COPY_MOVE(CommitObserver)

private:
    static int commit(void *observer);

    std::function<void()> observed;
};

// While it lives no savepoint can be begun ("BEGIN"), or none be released ("RELEASE"), on the default
// connection.
class SavepointDenial
{
public:
    explicit SavepointDenial(const char *operation);
    ~SavepointDenial();
    Q_DISABLE_COPY_MOVE(SavepointDenial)
};

// While it lives no SELECT can be prepared on the default connection.
class SelectDenial
{
public:
    SelectDenial();
    ~SelectDenial();
    Q_DISABLE_COPY_MOVE(SelectDenial)
};
