// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/testserver.h"

#include <QSqlDatabase>
#include <QSqlQuery>

using namespace Qt::StringLiterals;

// Another process's connection to the database. One at a time; what it has open is rolled back with it.
class OtherConnection
{
public:
    explicit OtherConnection(const TestServer &server)
    {
        database = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"other"_s);
        database.setDatabaseName(server.folder.databaseFile());
        database.open();
    }
    ~OtherConnection()
    {
        database = QSqlDatabase();
        QSqlDatabase::removeDatabase(u"other"_s);
    }
    Q_DISABLE_COPY_MOVE(OtherConnection)

    bool run(const QString &statement) const { return QSqlQuery(database).exec(statement); }

private:
    QSqlDatabase database;
};
