// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/transaction.h"

#include <QSqlQuery>

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

bool batchOpen = false;

bool execute(const QSqlDatabase &database, const QString &statement)
{
    return QSqlQuery(database).exec(statement);
}

} // namespace

Transaction::Transaction(const QSqlDatabase &connection) : database(connection), nested(batchOpen)
{
    if (nested) {
        execute(database, u"SAVEPOINT write"_s);
    } else {
        database.transaction();
    }
}

Transaction::~Transaction()
{
    if (!open) {
        return;
    }
    if (nested) {
        execute(database, u"ROLLBACK TO write"_s);
        execute(database, u"RELEASE write"_s);
    } else {
        database.rollback();
    }
}

bool Transaction::commit()
{
    const bool stored = nested ? execute(database, u"RELEASE write"_s) : database.commit();
    open = !stored;
    return stored;
}

// Immediate, so that it is known at the start whether this process may write: a lock that cannot be had in
// the middle would fail every later write of the batch too.
TransactionBatch::TransactionBatch(const QSqlDatabase &connection)
    : database(connection), open(execute(database, u"BEGIN IMMEDIATE"_s))
{
    batchOpen = open;
}

TransactionBatch::~TransactionBatch()
{
    if (open) {
        database.rollback();
    }
    batchOpen = false;
}

bool TransactionBatch::commit()
{
    if (!open) {
        return true;
    }
    const bool stored = database.commit();
    if (!stored) {
        database.rollback();
    }
    open = false;
    batchOpen = false;
    return stored;
}

} // namespace QMR
