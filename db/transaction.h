// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QSqlDatabase>

namespace QMR {

// One write of several statements: a transaction, or a savepoint inside a TransactionBatch that is open on
// the same connection. What is not committed is rolled back.
class Transaction
{
public:
    explicit Transaction(const QSqlDatabase &database);
    ~Transaction();
    Q_DISABLE_COPY_MOVE(Transaction)

    // False: nothing of it is stored.
    bool commit();

private:
    QSqlDatabase database;
    bool nested;
    bool open = true;
};

// Makes all Transactions of its lifetime one transaction of the database, which costs one wait for the disk
// instead of one each. At most one is open in the process.
class TransactionBatch
{
public:
    explicit TransactionBatch(const QSqlDatabase &database);
    ~TransactionBatch();
    Q_DISABLE_COPY_MOVE(TransactionBatch)

    // False: what the batch held together is not stored. (Where the one transaction could not be had from the
    // start, each Transaction was on its own, and all is well.)
    bool commit();

private:
    QSqlDatabase database;
    bool open;
};

} // namespace QMR
