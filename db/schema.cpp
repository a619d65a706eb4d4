// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "db/sqlite.h"
#include "db/upgrades.h"
#include "service/platform.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QSqlError>
#include <QSqlQuery>

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

// What a statement came to, or the check as a whole.
enum class Outcome {
    Done,
    Unusable,  // what the database holds does not allow it
    Locked,    // somebody else has locked the file
    Prevented, // another cause that may pass: a full disk, a read-only file
};

Outcome failure(const QSqlError &error)
{
    const int resultCode = error.nativeErrorCode().toInt();
    if (Sqlite::isLock(resultCode)) {
        return Outcome::Locked;
    }
    return Sqlite::isPassing(resultCode) ? Outcome::Prevented : Outcome::Unusable;
}

Outcome execute(const QString &statement)
{
    QSqlQuery query;
    return query.exec(statement) ? Outcome::Done : failure(query.lastError());
}

// Ends with the first that fails.
Outcome executeAll(const QStringList &statements)
{
    Outcome outcome = Outcome::Done;
    for (auto it = statements.begin(); it != statements.end() && outcome == Outcome::Done; ++it) {
        outcome = execute(*it);
    }
    return outcome;
}

Outcome readVersion(int &version)
{
    QSqlQuery query;
    if (!query.exec(u"SELECT database_version FROM config"_s) || !query.first()) {
        return failure(query.lastError()); // no row is no error of SQLite's: Unusable
    }
    version = query.value(0).toInt();
    return Outcome::Done;
}

// A replacement that was interrupted leaves the stored version behind its first statement, but no radios'
// table. Preparing a statement tells, and runs nothing.
Outcome findSubscribers()
{
    QSqlQuery query;
    return query.prepare(u"SELECT id FROM subscribers"_s) ? Outcome::Done : failure(query.lastError());
}

Outcome upgrade()
{
    int version = 0;
    const Outcome outcome = readVersion(version);
    if (outcome != Outcome::Done) {
        return outcome;
    }
    const std::optional<QStringList> statements = upgradeStatements(version);
    if (!statements) {
        return Outcome::Unusable;
    }
    return version == CurrentSchema ? findSubscribers() : executeAll(*statements);
}

// Begins and commits by statements, since Qt's own calls do not tell what failed them.
Outcome upgradeInTransaction(QSqlDatabase connection)
{
    if (execute(u"BEGIN"_s) != Outcome::Done) {
        return Outcome::Prevented; // nothing has been read yet
    }
    Outcome outcome = upgrade();
    if (outcome == Outcome::Done) {
        outcome = execute(u"COMMIT"_s);
    }
    if (outcome != Outcome::Done) {
        connection.rollback();
    }
    return outcome;
}

template<typename Attempt>
Outcome waitForLocks(const QDeadlineTimer &deadline, Attempt attempt)
{
    Outcome outcome = Outcome::Locked;
    Sqlite::whileHindered(deadline, [&] {
        outcome = attempt();
        return outcome == Outcome::Locked;
    });
    return outcome;
}

// Each statement is committed by itself.
Outcome runScript(const QString &script, const QDeadlineTimer &deadline)
{
    const QStringList pieces = script.split(u";\r\n"_s);
    for (const QString &piece : pieces) {
        const QString statement = piece.trimmed();
        if (statement.isEmpty()) {
            continue;
        }
        const Outcome outcome = waitForLocks(deadline, [&statement] { return execute(statement); });
        if (outcome != Outcome::Done) {
            return outcome;
        }
    }
    return Outcome::Done;
}

} // namespace

bool Quillmere::checkDatabase(std::chrono::milliseconds patience)
{
    const QSqlDatabase connection = QSqlDatabase::database();
    const QDeadlineTimer deadline(patience);
    Outcome outcome = waitForLocks(deadline, [&connection] { return upgradeInTransaction(connection); });
    if (outcome == Outcome::Done) {
        return true;
    }
    // A new database file comes this way too: the warning is expected at the first start of an installation.
    log(u"Unable to update database.  Replacing database..."_s, Warning);
    // What may be whole is left alone. The two failures are deliberately recorded as successes under
    // identifier 0.
    if (outcome == Outcome::Unusable) {
        QFile script(u":/Quillmere.schema"_s);
        if (!script.open(QIODevice::ReadOnly)) {
            logMessage(u"Database error: unable to continue"_s, Success, 0);
            return false;
        }
        outcome = runScript(QString::fromUtf8(script.readAll()), deadline);
    }
    if (outcome != Outcome::Done) {
        logMessage(u"Database schema: unable to continue"_s, Success, 0);
        return false;
    }
    return true;
}

// A journal that is kept costs fewer waits for the disk than one that is made and removed for each commit,
// and the end of a commit in it survives a power cut; that of its removal does not before the folder is
// synced too. SQLite keeps it open where open files cannot be deleted, and other programs, which delete
// theirs, could then not write. A file in write-ahead mode stays in it.
void Quillmere::keepJournal()
{
    const auto mode = [] {
        QSqlQuery query;
        return query.exec(u"PRAGMA journal_mode"_s) && query.first() ? query.value(0).toString() : QString();
    };
    execute(u"PRAGMA synchronous = EXTRA"_s); // once more: a lock may have kept it from being set before
    if (platform.canDeleteOpenFiles && mode() != u"wal") {
        execute(u"PRAGMA journal_mode = PERSIST"_s);
        // One large transaction does not leave its size on the disk for good.
        execute(u"PRAGMA journal_size_limit = 4194304"_s);
    }
    execute(u"PRAGMA cache_size = -65536"_s); // KiB: the upper levels of the indexes of a large fleet
}

} // namespace QMR
