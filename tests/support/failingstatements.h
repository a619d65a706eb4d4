// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/failingtable.h"
#include "tests/support/testserver.h"

#include <QSqlDatabase>

#include <limits>

using namespace Qt::StringLiterals;

// From one moment on, in the middle of a transaction too, the server's statements of a kind about radios'
// rows fail with a result code of SQLite's, all of them or the first few.
class FailingStatements
{
public:
    explicit FailingStatements(const TestServer &server, int resultCode,
                               int failures = std::numeric_limits<int>::max())
        : table(server.folder.databaseFile(), "failing", resultCode, failures)
    {
    }

    // kind: "UPDATE", say. What the trigger would do is only prepared, which is what fails.
    void begin(const QString &kind) const
    {
        run(u"CREATE TEMP TRIGGER failing BEFORE %1 ON subscribers WHEN 0 "
            "BEGIN SELECT * FROM failing; END"_s.arg(kind));
    }
    void end() const { run(u"DROP TRIGGER IF EXISTS failing"_s); }

private:
    void run(const QString &statement) const { runSql(connection, statement); }

    QSqlDatabase connection = QSqlDatabase::database(); // the server's own
    FailingTable table;
};
