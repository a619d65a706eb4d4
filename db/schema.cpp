// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include <QFile>
#include <QSqlQuery>

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

constexpr int CurrentVersion = 3;
constexpr int NoVersion = 0;

bool execute(const QString &statement)
{
    return QSqlQuery().exec(statement);
}

// The stored schema version; NoVersion when there is none, as in a new file.
int storedVersion()
{
    QSqlQuery query;
    const bool found = query.exec(u"SELECT database_version FROM config"_s) && query.first();
    return found ? query.value(0).toInt() : NoVersion;
}

bool upgradeFromVersion2()
{
    return execute(u"ALTER TABLE subscribers ADD COLUMN protocol_version INTEGER NOT NULL DEFAULT 0"_s) &&
           execute(u"UPDATE subscribers SET protocol_version = (CASE WHEN suid = '' THEN 1 WHEN suid = -1 "
                   "THEN 1 WHEN suid = x'00000000000000' THEN 1 ELSE 2 END)"_s) &&
           execute(u"UPDATE config SET database_version = 3"_s);
}

// The stored version deliberately goes from 1 straight to 3, inside the one transaction.
bool upgradeFromVersion1()
{
    return execute(u"ALTER TABLE subscribers ADD COLUMN suid BLOB NOT NULL DEFAULT ''"_s) &&
           execute(u"CREATE INDEX subscribers_suid_idx ON subscribers(suid)"_s) && upgradeFromVersion2();
}

bool upgrade()
{
    switch (storedVersion()) {
    case 1:
        return upgradeFromVersion1();
    case 2:
        return upgradeFromVersion2();
    case CurrentVersion:
        return true;
    default:
        return false;
    }
}

} // namespace

bool Quillmere::checkDatabase()
{
    QSqlDatabase connection = QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), true);
    connection.transaction();
    if (upgrade() && connection.commit()) {
        return true;
    }
    connection.rollback();
    // A new database file comes this way too: the warning is expected at the first start of an installation.
    log(u"Unable to update database.  Replacing database..."_s, Warning);
    return replaceDatabase();
}

// Runs the schema script, each statement committed by itself. Its two failures are deliberately recorded as
// successes under identifier 0.
bool Quillmere::replaceDatabase()
{
    QFile script(u":/Quillmere.schema"_s);
    if (!script.open(QIODevice::ReadOnly)) {
        logMessage(u"Database error: unable to continue"_s, Success, 0);
        return false;
    }
    const QStringList pieces = QString::fromUtf8(script.readAll()).split(u";\r\n"_s);
    for (const QString &piece : pieces) {
        const QString statement = piece.trimmed();
        if (!statement.isEmpty() && !execute(statement)) {
            logMessage(u"Database schema: unable to continue"_s, Success, 0);
            return false;
        }
    }
    return true;
}

// A journal that is kept costs fewer waits for the disk than one that is made and removed for each commit,
// and the end of a commit in it survives a power cut; that of its removal does not before the folder is
// synced too. A file in write-ahead mode stays in it.
void Quillmere::keepJournal()
{
    QSqlQuery query;
    if (query.exec(u"PRAGMA journal_mode"_s) && query.first() && query.value(0).toString() != u"wal") {
        execute(u"PRAGMA journal_mode = PERSIST"_s);
        // One large transaction does not leave its size on the disk for good.
        execute(u"PRAGMA journal_size_limit = 4194304"_s);
    }
    execute(u"PRAGMA cache_size = -65536"_s); // KiB: the upper levels of the indexes of a large fleet
}

} // namespace QMR
