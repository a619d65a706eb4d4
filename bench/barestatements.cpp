// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/barestatements.h"

#include "bench/fail.h"

#include <sqlite3.h>

using namespace Qt::StringLiterals;

namespace {

enum Statement { Begin, Commit, InsertSubscriber, SelectId, InsertService, Update, DeleteServices };

constexpr std::array<const char *, 7> Texts = {
    "BEGIN",
    "COMMIT",
    "INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time, "
    "num_discovery_attempts, "
    "last_discovery_attempt, protocol_version) VALUES (?1, ?2, ?3, ?4, ?5, 0, 0, 3)",
    "SELECT id FROM subscribers WHERE esn=?1",
    "INSERT INTO supported_services (subscriber_id, service) VALUES(?1, ?2)",
    "UPDATE subscribers SET suid=?2, ip_address=?3, availability=?4, last_contact_time=?5, "
    "num_discovery_attempts=0, last_discovery_attempt=0, protocol_version=3 WHERE id=?1",
    "DELETE FROM supported_services WHERE subscriber_id=?1",
};

constexpr int Registered = 3;

template<size_t Size>
void bindBlob(sqlite3_stmt *statement, int parameter, const std::array<uint8_t, Size> &bytes)
{
    sqlite3_bind_blob(statement, parameter, bytes.data(), Size, SQLITE_STATIC);
}

[[noreturn]] void fail(sqlite3 *database)
{
    fail(u"SQLite: "_s + QString::fromUtf8(sqlite3_errmsg(database)));
}

} // namespace

BareStatements::BareStatements(const QString &file, Journal journal)
{
    if (sqlite3_open(file.toUtf8().constData(), &database) != SQLITE_OK) {
        fail(database);
    }
    run(journal == Journal::WriteAhead ? "PRAGMA journal_mode = WAL" : "PRAGMA journal_mode = DELETE");
    run("PRAGMA synchronous = FULL");
    run("PRAGMA foreign_keys = ON");
    run("CREATE TABLE IF NOT EXISTS subscribers (id INTEGER PRIMARY KEY, esn BLOB UNIQUE NOT NULL, "
        "suid BLOB NOT NULL, ip_address INTEGER NOT NULL, availability INTEGER NOT NULL, "
        "last_contact_time INTEGER NOT NULL, num_discovery_attempts INTEGER NOT NULL DEFAULT 0, "
        "last_discovery_attempt INTEGER NOT NULL DEFAULT 0, protocol_version INTEGER NOT NULL DEFAULT 0)");
    run("CREATE TABLE IF NOT EXISTS supported_services (subscriber_id INTEGER NOT NULL, service INTEGER NOT "
        "NULL, "
        "FOREIGN KEY(subscriber_id) REFERENCES subscribers(id) ON DELETE CASCADE)");
    run("CREATE TABLE IF NOT EXISTS config (database_version INTEGER NOT NULL)");
    run("INSERT INTO config SELECT 3 WHERE NOT EXISTS (SELECT * FROM config)");
    run("CREATE INDEX IF NOT EXISTS subscribers_esn_idx ON subscribers(esn)");
    run("CREATE INDEX IF NOT EXISTS subscribers_suid_idx ON subscribers(suid)");
    run("CREATE INDEX IF NOT EXISTS supported_services_subscriber_id_idx ON "
        "supported_services(subscriber_id)");
    for (size_t i = 0; i < Texts.size(); ++i) {
        if (sqlite3_prepare_v2(database, Texts[i], -1, &statements[i], nullptr) != SQLITE_OK) {
            fail(database);
        }
    }
}

BareStatements::~BareStatements()
{
    for (sqlite3_stmt *statement : statements) {
        sqlite3_finalize(statement);
    }
    sqlite3_close(database);
}

void BareStatements::run(const char *sql)
{
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(database);
    }
}

void BareStatements::step(sqlite3_stmt *statement)
{
    if (sqlite3_step(statement) != SQLITE_DONE) {
        fail(database);
    }
    sqlite3_reset(statement);
}

std::array<uint8_t, 8> BareStatements::esn(uint32_t radio)
{
    uint64_t mixed = (radio + 1ULL) * 0x9E3779B97F4A7C15ULL;
    std::array<uint8_t, 8> bytes{};
    for (uint8_t &byte : bytes) {
        byte = static_cast<uint8_t>(mixed >> 56);
        mixed <<= 8;
    }
    return bytes;
}

int64_t BareStatements::selectId(const std::array<uint8_t, 8> &esn)
{
    sqlite3_stmt *select = statements[SelectId];
    bindBlob(select, 1, esn);
    if (sqlite3_step(select) != SQLITE_ROW) {
        fail(database);
    }
    const int64_t id = sqlite3_column_int64(select, 0);
    sqlite3_reset(select);
    return id;
}

void BareStatements::insertServices(int64_t id)
{
    for (const int service : Services) {
        sqlite3_bind_int64(statements[InsertService], 1, id);
        sqlite3_bind_int(statements[InsertService], 2, service);
        step(statements[InsertService]);
    }
}

void BareStatements::fill(uint32_t count, int64_t time)
{
    run("BEGIN");
    for (uint32_t radio = 0; radio < count; ++radio) {
        const auto bytes = esn(radio);
        sqlite3_stmt *statement = statements[InsertSubscriber];
        bindBlob(statement, 1, bytes);
        bindBlob(statement, 2, Suid);
        sqlite3_bind_int64(statement, 3, address(radio));
        sqlite3_bind_int(statement, 4, Registered);
        sqlite3_bind_int64(statement, 5, time);
        step(statement);
        insertServices(sqlite3_last_insert_rowid(database));
    }
    run("COMMIT");
}

void BareStatements::update(std::span<const uint32_t> radios, int64_t time)
{
    step(statements[Begin]);
    for (const uint32_t radio : radios) {
        update(radio, time);
    }
    step(statements[Commit]);
}

void BareStatements::update(uint32_t radio, int64_t time)
{
    const int64_t id = selectId(esn(radio));
    sqlite3_stmt *statement = statements[Update];
    sqlite3_bind_int64(statement, 1, id);
    bindBlob(statement, 2, Suid);
    sqlite3_bind_int64(statement, 3, address(radio));
    sqlite3_bind_int(statement, 4, Registered);
    sqlite3_bind_int64(statement, 5, time);
    step(statement);
    sqlite3_bind_int64(statements[DeleteServices], 1, id);
    step(statements[DeleteServices]);
    insertServices(id);
}
