// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArrayView>
#include <QtGlobal>

#include <initializer_list>
#include <optional>
#include <variant>

struct sqlite3;
struct sqlite3_stmt;

namespace QMR {

// A statement that is prepared when it is first run and kept for the next time. One whose preparation failed
// (its table is missing, say) is tried again then. It must be gone before its connection is closed.
class PreparedStatement
{
public:
    // Bytes are bound as a blob; they need to last for the call only.
    using Value = std::variant<qint64, QByteArrayView>;

    // text must outlive the statement.
    PreparedStatement(sqlite3 *connection, const char *text);
    ~PreparedStatement();
    Q_DISABLE_COPY_MOVE(PreparedStatement)

    // Runs it to its end, with values for its parameters in the order in which the text names them. False:
    // not prepared or not executed; the connection tells why.
    bool run(std::initializer_list<Value> values = {});

    // The same for a query: column 0 of its first row; nothing when there is no row, or when it failed.
    std::optional<qint64> firstValue(std::initializer_list<Value> values);

private:
    bool bind(std::initializer_list<Value> values);
    int step();
    void finish();

    sqlite3 *connection;
    const char *text;
    sqlite3_stmt *statement = nullptr;
};

// What keeps a radio's rows in step with its record, and the transactions around it, for one opened database.
class SubscriberStatements
{
public:
    explicit SubscriberStatements(sqlite3 *connection);

    PreparedStatement begin;
    PreparedStatement commit;
    PreparedStatement rollback;
    PreparedStatement savepoint;
    PreparedStatement release;
    PreparedStatement rollbackToSavepoint;

    PreparedStatement insertSubscriber;
    PreparedStatement selectId;
    PreparedStatement updateSubscriber;
    PreparedStatement deleteSubscriber;
    PreparedStatement insertService;
    PreparedStatement deleteServices;
};

} // namespace QMR
