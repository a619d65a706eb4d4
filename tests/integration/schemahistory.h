// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/testserver.h"

#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>

#include <chrono>

using namespace Qt::StringLiterals;

// The statements that make an empty database of schema version 1, 2 or 3, as the programs of their time did.
inline QStringList schemaHistory(int version)
{
    const QString suid = version >= 2 ? u"suid BLOB NOT NULL, "_s : QString();
    const QString protocol = version >= 3 ? u", protocol_version INTEGER NOT NULL DEFAULT 0"_s : QString();
    QStringList statements{
        u"CREATE TABLE subscribers (id INTEGER PRIMARY KEY, esn BLOB UNIQUE NOT NULL, %1"
        "ip_address INTEGER NOT NULL, availability INTEGER NOT NULL, "
        "last_contact_time INTEGER NOT NULL, num_discovery_attempts INTEGER NOT NULL DEFAULT 0, "
        "last_discovery_attempt INTEGER NOT NULL DEFAULT 0%2)"_s.arg(suid, protocol),
        u"CREATE TABLE supported_services (subscriber_id INTEGER NOT NULL, service INTEGER NOT "
        "NULL, FOREIGN KEY(subscriber_id) REFERENCES subscribers(id) ON DELETE CASCADE)"_s,
        u"CREATE TABLE config (database_version INTEGER NOT NULL)"_s,
        u"CREATE INDEX subscribers_esn_idx ON subscribers(esn)"_s,
        u"CREATE INDEX supported_services_subscriber_id_idx ON supported_services(subscriber_id)"_s,
        u"INSERT INTO config VALUES (%1)"_s.arg(version),
    };
    if (version >= 2) {
        statements.append(u"CREATE INDEX subscribers_suid_idx ON subscribers(suid)"_s);
    }
    return statements;
}

// The statements that replace a database, in their order.
inline QStringList schemaScript()
{
    QFile script(u":/Quillmere.schema"_s);
    if (!script.open(QIODevice::ReadOnly)) {
        qFatal("no schema");
    }
    QStringList statements = QString::fromUtf8(script.readAll()).split(u";\r\n"_s);
    statements.removeLast(); // white space
    for (QString &statement : statements) {
        statement = statement.trimmed();
    }
    return statements;
}

inline QString addVersionColumn()
{
    return u"ALTER TABLE subscribers ADD COLUMN protocol_version INTEGER NOT NULL DEFAULT 0"_s;
}

inline QString deriveVersion()
{
    return u"UPDATE subscribers SET protocol_version = (CASE WHEN suid = '' THEN 1 WHEN suid = -1 "
           "THEN 1 WHEN suid = x'00000000000000' THEN 1 ELSE 2 END)"_s;
}

inline LogRecord replacingRecord()
{
    return RecordingLog::record(Scm::EventWarning, u"Unable to update database.  Replacing database..."_s);
}

// Deliberately a success under identifier 0.
inline LogRecord failedScriptRecord()
{
    return RecordingLog::record(Scm::EventSuccess, u"Database schema: unable to continue"_s, 0);
}

// Tables, then indexes, of the current schema, each with its table.
inline QList<QVariantList> currentObjects()
{
    const auto object = [](const char *type, const char *name, const char *table) {
        return QVariantList{QString::fromLatin1(type), QString::fromLatin1(name), QString::fromLatin1(table)};
    };
    return {object("index", "subscribers_esn_idx", "subscribers"),
            object("index", "subscribers_suid_idx", "subscribers"),
            object("index", "supported_services_subscriber_id_idx", "supported_services"),
            object("table", "config", "config"),
            object("table", "subscribers", "subscribers"),
            object("table", "supported_services", "supported_services")};
}

// A server that is not started, and an open default connection to its database: what the schema check finds
// at start-up, without the load that follows it.
class SchemaCheck
{
public:
    SchemaCheck()
    {
        connection = QSqlDatabase::addDatabase(u"QSQLITE"_s);
        connection.setDatabaseName(server.folder.databaseFile());
        connection.open();
        QSqlQuery(connection).exec(u"PRAGMA foreign_keys = ON"_s);
    }
    ~SchemaCheck()
    {
        connection = QSqlDatabase();
        QSqlDatabase::removeDatabase(QLatin1String(QSqlDatabase::defaultConnection));
    }
    Q_DISABLE_COPY_MOVE(SchemaCheck)

    TestServer server;

    bool run() const { return server->checkDatabase(); }
    bool run(std::chrono::milliseconds patience) const { return server->checkDatabase(patience); }

    void create(int version) const
    {
        for (const QString &statement : schemaHistory(version)) {
            query(statement);
        }
    }

    QList<QVariantList> query(const QString &statement) const { return server.query(statement); }

    // Type, name and table of each table and each index that has a statement of its own.
    QList<QVariantList> objects() const
    {
        return query(
            u"SELECT type, name, tbl_name FROM sqlite_master WHERE sql IS NOT NULL ORDER BY type, name"_s);
    }

    QByteArray fileContent() const
    {
        QFile file(server.folder.databaseFile());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    QSqlDatabase connection;
};
