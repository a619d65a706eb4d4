// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/databasecheck.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QThread>
#include <QUrl>

#include <sqlite3.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

constexpr int CurrentVersion = 3;
constexpr unsigned long Pause = 20; // ms, between two looks at a lock

Finding finding(State state, const QString &text)
{
    return {u"database"_s, state, text};
}

struct Closer
{
    void operator()(sqlite3 *connection) const { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, Closer>;

struct Result
{
    int code = SQLITE_OK;
    QString value; // the first row's first column
};

Result ask(sqlite3 *connection, const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    int code = sqlite3_prepare_v2(connection, sql, -1, &statement, nullptr);
    QString value;
    if (code == SQLITE_OK) {
        code = sqlite3_step(statement);
        if (code == SQLITE_ROW) {
            value = QString::fromUtf8(reinterpret_cast<const char *>(sqlite3_column_text(statement, 0)));
            code = SQLITE_OK;
        } else if (code == SQLITE_DONE) {
            code = SQLITE_NOTFOUND; // no row
        }
    }
    sqlite3_finalize(statement);
    return {code, value};
}

constexpr qsizetype FormatVersions = 18; // in the file: 2 bytes, each 2 in write-ahead mode

bool isInWriteAheadMode(const QString &file)
{
    QFile contents(file);
    return contents.open(QIODevice::ReadOnly) && contents.read(FormatVersions + 2).endsWith("\2\2");
}

Connection open(const QString &file)
{
    QUrl url = QUrl::fromLocalFile(QFileInfo(file).absoluteFilePath());
    // In write-ahead mode a connection that only reads would leave files of its own beside a database that
    // nobody has open. Then all of it is in the one file, which can be read by itself.
    const bool isResting = isInWriteAheadMode(file) && !QFile::exists(file + u"-wal"_s);
    url.setQuery(isResting ? u"mode=ro&immutable=1"_s : u"mode=ro"_s);
    sqlite3 *connection = nullptr;
    sqlite3_open_v2(url.toEncoded().constData(), &connection, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI,
                    nullptr);
    return Connection(connection);
}

// Whether somebody else is in the middle of writing. Unseen in write-ahead mode, where it keeps nobody from
// reading.
bool isBeingWritten(sqlite3 *connection)
{
    sqlite3_file *file = nullptr;
    int reserved = 0;
    sqlite3_file_control(connection, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    return file && file->pMethods && file->pMethods->xCheckReservedLock(file, &reserved) == SQLITE_OK &&
           reserved != 0;
}

// The whole database as it is at one moment; waits for a lock to end.
Connection copyOf(sqlite3 *source, const QDeadlineTimer &deadline, int &code)
{
    for (;;) {
        code = ask(source, "SELECT count(*) FROM sqlite_schema").code;
        const bool isLocked = code == SQLITE_BUSY || (code == SQLITE_OK && isBeingWritten(source));
        if (!isLocked || deadline.hasExpired()) {
            break;
        }
        QThread::msleep(Pause);
    }
    if (code != SQLITE_OK) {
        return nullptr;
    }
    sqlite3_int64 size = 0;
    unsigned char *const bytes = sqlite3_serialize(source, "main", &size, 0);
    if (!bytes) {
        code = SQLITE_NOMEM;
        return nullptr;
    }
    if (size > FormatVersions + 1) {
        bytes[FormatVersions] = bytes[FormatVersions + 1] = 1; // a copy has no log beside it
    }
    sqlite3 *copy = nullptr;
    sqlite3_open(":memory:", &copy);
    code = sqlite3_deserialize(copy, "main", bytes, size, size, SQLITE_DESERIALIZE_FREEONCLOSE);
    return Connection(copy);
}

Finding whatKeepsItFromBeingRead(const QString &file, int code)
{
    switch (code & 0xFF) {
    case SQLITE_BUSY:
        return finding(State::Warning, u"%1 is locked by another program"_s.arg(file));
    case SQLITE_READONLY:
    case SQLITE_CANTOPEN:
        return finding(State::Unknown,
                       u"%1: %2; the server takes back what was interrupted, when it starts"_s.arg(
                           file, QString::fromUtf8(sqlite3_errstr(code))));
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
        return finding(State::Critical,
                       u"%1 is damaged: the server replaces it by an empty one, when it starts"_s.arg(file));
    default:
        return finding(State::Unknown, u"%1: %2"_s.arg(file, QString::fromUtf8(sqlite3_errstr(code))));
    }
}

Finding checkVersion(const Result &version)
{
    const int number = version.code == SQLITE_OK ? version.value.toInt() : 0;
    if (number == CurrentVersion) {
        return finding(State::Ok, u"schema version 3"_s);
    }
    if (number == 1 || number == 2) {
        return finding(State::Ok, u"schema version %1, brought to 3 when the server starts"_s.arg(number));
    }
    return finding(
        State::Critical,
        u"no schema version that the server knows: it replaces the database by an empty one, when it starts"_s);
}

} // namespace

Findings checkDriver()
{
    const bool isThere = QSqlDatabase::isDriverAvailable(u"QSQLITE"_s);
    return {{u"driver"_s, isThere ? State::Ok : State::Critical,
             isThere ? u"Qt's driver for SQLite is there"_s
                     : u"Qt's driver for SQLite is missing (Debian: libqt6sql6-sqlite)"_s}};
}

Findings checkDatabase(const QString &file, std::chrono::milliseconds patience, std::optional<qint64> &rows)
{
    rows.reset();
    if (!QFile::exists(file)) {
        return {finding(State::Ok, u"no %1 yet: the server makes it"_s.arg(file))};
    }
    QFile contents(file);
    if (!contents.open(QIODevice::ReadOnly)) {
        return {finding(State::Unknown, u"%1: %2"_s.arg(file, contents.errorString()))};
    }
    contents.close();
    const Connection source = open(file);
    int code = SQLITE_OK;
    const Connection copy = copyOf(source.get(), QDeadlineTimer(patience), code);
    if (code != SQLITE_OK) {
        return {whatKeepsItFromBeingRead(file, code)};
    }
    Findings findings;
    if (isBeingWritten(source.get())) {
        findings += finding(State::Warning, u"%1 is locked for writing"_s.arg(file));
    }
    const Result integrity = ask(copy.get(), "PRAGMA integrity_check(1)");
    if (integrity.value != u"ok") {
        findings += finding(State::Critical, u"%1 is damaged: %2"_s.arg(file, integrity.value));
    } else if (ask(copy.get(), "PRAGMA foreign_key_check").code != SQLITE_NOTFOUND) {
        findings += finding(State::Warning, u"%1: services of a radio that is not there"_s.arg(file));
    }
    const Finding version = checkVersion(ask(copy.get(), "SELECT database_version FROM config"));
    const Result count = ask(copy.get(), "SELECT count(*) FROM subscribers");
    if (count.code == SQLITE_OK) {
        rows = count.value.toLongLong();
    }
    if (version.state != State::Ok || !findings.isEmpty()) {
        if (version.state != State::Ok) {
            findings += finding(version.state, u"%1: %2"_s.arg(file, version.text));
        }
        return findings;
    }
    return {finding(State::Ok, u"%1: %2 radios, %3, whole, %4"_s.arg(
                                   file, QString::number(rows.value_or(0)), version.text,
                                   isInWriteAheadMode(file) ? u"write-ahead log"_s : u"rollback journal"_s))};
}

} // namespace CheckTool
