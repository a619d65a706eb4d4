// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariant>

#include <initializer_list>
#include <utility>

namespace QMR {

// A statement that is prepared when it is first run and kept for the next time. One whose preparation failed
// (its table is missing, say) is tried again then.
class PreparedStatement
{
public:
    using Binding = std::pair<QString, QVariant>;

    PreparedStatement(const QSqlDatabase &database, QString statementText);

    // False: not prepared or not executed.
    bool run(std::initializer_list<Binding> bindings);

    // Column 0 of the first row after a run; invalid when there is no row. Lets the result go: an open one
    // would keep the database locked.
    QVariant takeFirstValue();

private:
    QSqlQuery query;
    QString text;
    bool prepared = false;
};

// The statements that keep a radio's rows in step with its record, for one opened database; to be released
// before that database is closed.
class SubscriberStatements
{
public:
    explicit SubscriberStatements(const QSqlDatabase &database);

    PreparedStatement insertSubscriber;
    PreparedStatement selectId;
    PreparedStatement updateSubscriber;
    PreparedStatement deleteSubscriber;
    PreparedStatement insertService;
    PreparedStatement deleteServices;
};

} // namespace QMR
