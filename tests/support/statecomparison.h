// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/quillmere.h"
#include "tests/support/registrationmodel.h"

#include <QStringList>

#include <map>
#include <memory>

struct sqlite3;
struct sqlite3_stmt;

// Holds what a server knows against the model of it: table, address index, queues, timers, rows, owed rows.
// The first difference is kept. The server's database exists already, and is read on a connection of its own.
class StateComparison
{
public:
    StateComparison(const QString &databaseFile, const RegistrationModel &model);
    ~StateComparison();
    Q_DISABLE_COPY_MOVE(StateComparison)

    void compareTable(const QMR::Quillmere &server);
    void compareRows(const QMR::Quillmere &server);

    // Runs a statement on the connection that the rows are read through.
    void run(const char *statement);
    // Keeps the server from writing.
    void lockDatabase();
    void unlockDatabase();

    void differs(const QString &what, const QString &actual, const QString &expected);
    // Empty while nothing differs.
    QString difference() const { return firstDifference; }

private:
    void compareEntries(const QMR::Quillmere &server);
    void compareAddresses(const QMR::Quillmere &server);
    void compareQueues(const QMR::Quillmere &server);
    void compareTimers(const QMR::Quillmere &server);
    std::map<QMR::Esn, RegistrationModel::Row> readRows();

    const RegistrationModel &model;
    sqlite3 *database = nullptr;
    sqlite3_stmt *rows = nullptr;
    QString firstDifference;
};

// What differs, one a line.
template<typename Value>
QString linesOf(const QList<Value> &values)
{
    QStringList texts;
    for (const Value &value : values) {
        const std::unique_ptr<char[]> text(toString(value));
        texts.append(QString::fromUtf8(text.get()));
    }
    return texts.join(QStringLiteral("\n    "));
}
