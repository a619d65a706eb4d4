// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/quillmere.h"
#include "tests/support/registrationmodel.h"

#include <QStringList>

#include <map>
#include <memory>

using namespace Qt::StringLiterals;

struct sqlite3;
struct sqlite3_stmt;

// Holds what a server knows against the model of it: table, address index, queues, timers, rows, owed rows.
// The first difference is kept. The server's database exists already, and is read on a connection of its own.
class StateComparison
{
public:
    explicit StateComparison(const QString &databaseFile);
    ~StateComparison();
    Q_DISABLE_COPY_MOVE(StateComparison)

    void compareTable(const QMR::Quillmere &server, const RegistrationModel &model);
    void compareRows(const QMR::Quillmere &server, const RegistrationModel &model);

    // Runs a statement on the connection that the rows are read through.
    void run(const char *statement);
    // Keeps the server from writing.
    void lockDatabase();
    void unlockDatabase();

    void differs(const QString &what, const QString &actual, const QString &expected);
    // Empty while nothing differs.
    const QString &difference() const { return firstDifference; }
    void forget() { firstDifference.clear(); }

private:
    void compareEntries(const QMR::Quillmere &server, const RegistrationModel &model);
    void compareAddresses(const QMR::Quillmere &server, const RegistrationModel &model);
    void compareQueues(const QMR::Quillmere &server, const RegistrationModel &model);
    void compareTimers(const QMR::Quillmere &server, const RegistrationModel &model);
    std::map<QMR::Esn, RegistrationModel::Row> readRows();

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
    return texts.join(u"\n    "_s);
}
