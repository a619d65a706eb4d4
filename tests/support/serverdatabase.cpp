// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/serverdatabase.h"

#include <QSqlDatabase>
#include <QSqlDriver>
#include <QVariant>

#include <sqlite3.h>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

QSqlDatabase defaultConnection()
{
    return QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false);
}

QStringList &traced()
{
    static QStringList statements;
    return statements;
}

StatementTrace::Observer &observing()
{
    static StatementTrace::Observer observer;
    return observer;
}

int keepStatement(unsigned, void *, void *, void *text)
{
    const QString statement = QString::fromUtf8(static_cast<const char *>(text));
    if (!statement.startsWith(u"--"_s)) {
        traced().append(statement);
        if (observing()) {
            observing()(statement);
        }
    }
    return 0;
}

int traceNewConnection(sqlite3 *connection, const char **, const void *)
{
    return sqlite3_trace_v2(connection, SQLITE_TRACE_STMT, keepStatement, nullptr);
}

int denySelect(void *, int action, const char *, const char *, const char *, const char *)
{
    return action == SQLITE_SELECT ? SQLITE_DENY : SQLITE_OK;
}

int denySavepoint(void *operation, int action, const char *name, const char *, const char *, const char *)
{
    return action == SQLITE_SAVEPOINT && qstrcmp(name, static_cast<const char *>(operation)) == 0
               ? SQLITE_DENY
               : SQLITE_OK;
}

} // namespace

sqlite3 *serverDatabase()
{
    const QVariant handle = defaultConnection().driver()->handle();
    if (!handle.isValid()) {
        qFatal("the server's database is not open");
    }
    return *static_cast<sqlite3 *const *>(handle.constData());
}

void setBusyTimeout(int milliseconds)
{
    sqlite3_busy_timeout(serverDatabase(), milliseconds);
}

StatementTrace::StatementTrace(Observer observer)
{
    traced().clear();
    observing() = std::move(observer);
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(traceNewConnection));
    if (defaultConnection().isOpen()) {
        sqlite3_trace_v2(serverDatabase(), SQLITE_TRACE_STMT, keepStatement, nullptr);
    }
}

StatementTrace::~StatementTrace()
{
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(traceNewConnection));
    if (defaultConnection().isOpen()) {
        sqlite3_trace_v2(serverDatabase(), 0, nullptr, nullptr);
    }
    observing() = {};
}

QStringList StatementTrace::take()
{
    return std::exchange(traced(), {});
}

CommitHook::CommitHook(int count) : refusals(count)
{
    sqlite3_commit_hook(serverDatabase(), commit, this);
}

CommitHook::~CommitHook()
{
    if (defaultConnection().isOpen()) {
        sqlite3_commit_hook(serverDatabase(), nullptr, nullptr);
    }
}

int CommitHook::commit(void *hook)
{
    auto *self = static_cast<CommitHook *>(hook);
    return self->attempts++ < self->refusals ? 1 : 0;
}

CommitObserver::CommitObserver(std::function<void()> observer) : observed(std::move(observer))
{
    sqlite3_commit_hook(serverDatabase(), commit, this);
}

CommitObserver::~CommitObserver()
{
    if (defaultConnection().isOpen()) {
        sqlite3_commit_hook(serverDatabase(), nullptr, nullptr);
    }
}

int CommitObserver::commit(void *observer)
{
    static_cast<CommitObserver *>(observer)->observed();
    return 0;
}

SavepointDenial::SavepointDenial(const char *operation)
{
    sqlite3_set_authorizer(serverDatabase(), denySavepoint, const_cast<char *>(operation));
}

SavepointDenial::~SavepointDenial()
{
    sqlite3_set_authorizer(serverDatabase(), nullptr, nullptr);
}

SelectDenial::SelectDenial()
{
    sqlite3_set_authorizer(serverDatabase(), denySelect, nullptr);
}

SelectDenial::~SelectDenial()
{
    if (defaultConnection().isOpen()) {
        sqlite3_set_authorizer(serverDatabase(), nullptr, nullptr);
    }
}
