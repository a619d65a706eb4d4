// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/databasecheck.h"

#include "db/upgrades.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QThread>
#include <QUrl>

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <system_error>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

constexpr unsigned long Pause = 20; // ms, between two looks at a lock
constexpr int PagesAtOnce = 1024;   // 4 MiB, read within milliseconds; a server's commit waits 250 for a lock
constexpr std::uintmax_t LeastSpace = 1 << 20; // bytes, for a journal

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
    int code = SQLITE_OK; // SQLITE_NOTFOUND: there is no row
    QString value;        // the first row's first column
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
            code = SQLITE_NOTFOUND;
        }
    }
    sqlite3_finalize(statement);
    return {code, value};
}

bool canRun(sqlite3 *connection, const QString &sql)
{
    return sqlite3_exec(connection, sql.toUtf8().constData(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool isInWriteAheadMode(const QString &file)
{
    constexpr qsizetype Versions = 18; // of the format, in the file: 2 bytes, each 2 in this mode
    QFile contents(file);
    return contents.open(QIODevice::ReadOnly) && contents.read(Versions + 2).endsWith("\2\2");
}

// A database open for reading alone.
class Source
{
public:
    explicit Source(const QString &file)
    {
        QString path = QFileInfo(file).absoluteFilePath();
        QString query = u"mode=ro"_s;
        // In write-ahead mode a reader would leave files of its own beside a database that nobody has open.
        if (isInWriteAheadMode(file) && !QFile::exists(file + u"-shm"_s)) {
            if (QFile::exists(file + u"-wal"_s)) {
                path = aside.filePath(u"copy"_s);
                QFile::copy(file, path);
                QFile::copy(file + u"-wal"_s, path + u"-wal"_s);
            } else {
                query += u"&immutable=1"_s;
            }
        }
        QUrl url = QUrl::fromLocalFile(path);
        url.setQuery(query);
        sqlite3 *opened = nullptr;
        sqlite3_open_v2(url.toEncoded().constData(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI,
                        nullptr);
        connection.reset(opened);
    }

    sqlite3 *get() const { return connection.get(); }

    // Whether somebody else is in the middle of writing. Unseen in write-ahead mode, where it keeps nobody
    // from reading.
    bool isBeingWritten() const
    {
        sqlite3_file *file = nullptr;
        int reserved = 0;
        sqlite3_file_control(get(), "main", SQLITE_FCNTL_FILE_POINTER, &file);
        return file && file->pMethods && file->pMethods->xCheckReservedLock(file, &reserved) == SQLITE_OK &&
               reserved != 0;
    }

private:
    QTemporaryDir aside;
    Connection connection;
};

// SQLITE_OK; SQLITE_BUSY, when others have it locked, and SQLITE_LOCKED, when they write, all of the time.
int waitForLocks(const Source &source, const QDeadlineTimer &deadline)
{
    for (;;) {
        const int code = ask(source.get(), "SELECT count(*) FROM sqlite_schema").code;
        const bool isWritten = code == SQLITE_OK && source.isBeingWritten();
        if (code != SQLITE_BUSY && !isWritten) {
            return code;
        }
        if (deadline.hasExpired()) {
            return isWritten ? SQLITE_LOCKED : code;
        }
        QThread::msleep(Pause);
    }
}

// Null: it changes too fast, and each change means to begin anew; or code tells why.
Connection copyOf(const Source &source, const QDeadlineTimer &deadline, int &code)
{
    sqlite3 *opened = nullptr;
    sqlite3_open(":memory:", &opened);
    Connection copy(opened);
    sqlite3_backup *const backup = sqlite3_backup_init(opened, "main", source.get(), "main");
    do {
        code = sqlite3_backup_step(backup, PagesAtOnce);
        if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
            QThread::msleep(Pause);
            code = SQLITE_OK;
        }
    } while (code == SQLITE_OK && !deadline.hasExpired());
    sqlite3_backup_finish(backup);
    const bool isWhole = code == SQLITE_DONE;
    code = isWhole ? SQLITE_OK : code;
    return isWhole ? std::move(copy) : nullptr;
}

Finding whatKeepsItFromBeingRead(const QString &file, int code)
{
    switch (code & 0xFF) {
    case SQLITE_BUSY:
        return finding(State::Warning, u"%1 is locked by another program"_s.arg(file));
    case SQLITE_READONLY:
        return finding(
            State::Warning,
            u"%1: a transaction was interrupted; the server takes it back when it starts"_s.arg(file));
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
        return finding(State::Critical, u"%1 is damaged: the server cannot start with it"_s.arg(file));
    default:
        return finding(State::Unknown, u"%1: %2"_s.arg(file, QString::fromUtf8(sqlite3_errstr(code))));
    }
}

// What is no file to work with.
Findings checkFile(const QString &file)
{
    const QFileInfo info(file);
    if (info.isSymLink() && !info.exists()) {
        return {finding(State::Critical, u"%1 is a link to nowhere"_s.arg(file))};
    }
    if (info.exists() && !info.isFile()) {
        return {finding(State::Critical, u"%1 is not a file"_s.arg(file))};
    }
    std::error_code error;
    const std::filesystem::space_info disk = std::filesystem::space(info.filesystemPath(), error);
    if (!error && disk.available < LeastSpace) {
        return {finding(State::Critical, u"the disk of %1 is full"_s.arg(file))};
    }
    if (!info.exists()) {
        return {finding(State::Ok, u"no %1 yet: the server makes it"_s.arg(file))};
    }
    if (info.size() == 0) {
        return {finding(State::Ok, u"%1 is empty: the server makes it anew"_s.arg(file))};
    }
    QFile contents(file);
    if (!contents.open(QIODevice::ReadOnly)) {
        return {finding(State::Unknown, u"%1: %2"_s.arg(file, contents.errorString()))};
    }
    return {};
}

Findings checkIntegrity(const QString &file, sqlite3 *copy)
{
    QString integrity = ask(copy, "PRAGMA integrity_check(1)").value;
    if (integrity != u"ok") {
        integrity.remove(u"*** in database main ***"_s);
        return {finding(State::Critical, u"%1 is damaged: %2"_s.arg(file, integrity.simplified()))};
    }
    if (ask(copy, "PRAGMA foreign_key_check").code != SQLITE_NOTFOUND) {
        return {finding(State::Warning, u"%1: services of a radio that is not there"_s.arg(file))};
    }
    return {};
}

// Does to the copy what the server will do to the database. text: of the version, where all is well.
Findings checkSchema(const QString &file, sqlite3 *copy, QString &text)
{
    const Result stored = ask(copy, "SELECT database_version FROM config");
    const int version = stored.code == SQLITE_OK ? stored.value.toInt() : 0;
    const auto statements = QMR::upgradeStatements(version);
    bool isUsable = statements && canRun(copy, u"SELECT id FROM subscribers LIMIT 1"_s);
    for (const QString &statement : statements.value_or(QStringList())) {
        isUsable = isUsable && canRun(copy, statement);
    }
    if (!isUsable) {
        return {finding(
            State::Critical,
            u"%1: the server knows no way from its schema (version %2), and replaces it by an empty one when it starts"_s
                .arg(file, stored.code == SQLITE_OK ? stored.value : u"none"_s))};
    }
    const bool hasAll =
        canRun(
            copy,
            u"SELECT id, esn, suid, ip_address, availability, last_contact_time, "
            "num_discovery_attempts, last_discovery_attempt, protocol_version FROM subscribers LIMIT 1"_s) &&
        canRun(copy, u"SELECT subscriber_id, service FROM supported_services LIMIT 1"_s);
    if (!hasAll) {
        return {finding(State::Critical, u"%1 lacks columns: radios are not stored"_s.arg(file))};
    }
    text = u"schema version %1"_s.arg(version);
    if (version != QMR::CurrentSchema) {
        text += u", brought to %1 when the server starts"_s.arg(QMR::CurrentSchema);
    }
    return {};
}

} // namespace

Findings checkDriver()
{
    const bool isThere = QSqlDatabase::isDriverAvailable(u"QSQLITE"_s);
    return {{u"driver"_s, isThere ? State::Ok : State::Critical,
             isThere ? u"Qt's driver for SQLite is there"_s
                     : u"Qt's driver for SQLite is missing (Debian: libqt6sql6-sqlite)"_s}};
}

Findings checkDatabase(const QString &file, std::chrono::milliseconds patience)
{
    Findings findings = checkFile(file);
    if (!findings.isEmpty()) {
        return findings;
    }
    const QDeadlineTimer deadline(patience);
    const Source source(file);
    int code = waitForLocks(source, deadline);
    if (code == SQLITE_LOCKED) {
        findings += finding(State::Warning, u"%1 is locked for writing"_s.arg(file));
    } else if (code != SQLITE_OK) {
        return {whatKeepsItFromBeingRead(file, code)};
    }
    const Connection copy = copyOf(source, QDeadlineTimer(patience), code);
    if (code != SQLITE_OK) {
        return {whatKeepsItFromBeingRead(file, code)};
    }
    if (!copy) {
        return findings + Findings{finding(State::Ok, u"%1 changes too fast to be looked into"_s.arg(file))};
    }
    QString version;
    findings += checkIntegrity(file, copy.get()) + checkSchema(file, copy.get(), version);
    if (findings.isEmpty()) {
        findings +=
            finding(State::Ok, u"%1: %2 radios, %3, whole, %4"_s.arg(
                                   file, ask(copy.get(), "SELECT count(*) FROM subscribers").value, version,
                                   isInWriteAheadMode(file) ? u"write-ahead log"_s : u"rollback journal"_s));
    }
    return findings;
}

class RowCounter::Source : public CheckTool::Source
{
    using CheckTool::Source::Source;
};

RowCounter::RowCounter(const QString &file, std::chrono::milliseconds patience)
{
    if (QFileInfo(file).isFile()) {
        source = std::make_unique<Source>(file);
        sqlite3_busy_timeout(source->get(), static_cast<int>(patience.count()));
    }
}

RowCounter::~RowCounter() = default;

std::optional<qint64> RowCounter::count() const
{
    const Result count =
        source ? ask(source->get(), "SELECT count(*) FROM subscribers") : Result{SQLITE_ERROR, {}};
    return count.code == SQLITE_OK ? std::optional(count.value.toLongLong()) : std::nullopt;
}

qint64 RowCounter::state() const
{
    return source ? ask(source->get(), "PRAGMA data_version").value.toLongLong() : 0;
}

} // namespace CheckTool
