// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/testserver.h"

#include <QSqlDatabase>
#include <QSqlQuery>

// Another process's connection to the database. One at a time; what it has open is rolled back with it.
class OtherConnection
{
public:
    explicit OtherConnection(const TestServer &server)
    {
        database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("other"));
        database.setDatabaseName(server.folder.databaseFile());
        database.open();
    }
    ~OtherConnection()
    {
        database = QSqlDatabase();
        QSqlDatabase::removeDatabase(QStringLiteral("other"));
    }
    Q_DISABLE_COPY_MOVE(OtherConnection)

    bool run(const QString &statement) const { return QSqlQuery(database).exec(statement); }

private:
    QSqlDatabase database;
};
