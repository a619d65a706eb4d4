// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/statements.h"

#include <sqlite3.h>

namespace QMR {

PreparedStatement::PreparedStatement(sqlite3 *database, const char *statementText)
    : connection(database), text(statementText)
{
}

PreparedStatement::~PreparedStatement()
{
    sqlite3_finalize(statement);
}

bool PreparedStatement::run(std::initializer_list<Value> values)
{
    const bool done = bind(values) && step() == SQLITE_DONE;
    finish();
    return done;
}

std::optional<qint64> PreparedStatement::firstValue(std::initializer_list<Value> values)
{
    std::optional<qint64> value;
    if (bind(values) && step() == SQLITE_ROW) {
        value = sqlite3_column_int64(statement, 0);
    }
    finish();
    return value;
}

bool PreparedStatement::bind(std::initializer_list<Value> values)
{
    if (!statement && sqlite3_prepare_v3(connection, text, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                                         nullptr) != SQLITE_OK) {
        return false;
    }
    int parameter = 0;
    for (const Value &value : values) {
        ++parameter;
        const auto *bytes = std::get_if<QByteArrayView>(&value);
        const int result =
            bytes ? sqlite3_bind_blob64(statement, parameter, bytes->data(),
                                        static_cast<sqlite3_uint64>(bytes->size()), SQLITE_STATIC)
                  : sqlite3_bind_int64(statement, parameter, std::get<qint64>(value));
        if (result != SQLITE_OK) {
            return false;
        }
    }
    return true;
}

int PreparedStatement::step()
{
    return sqlite3_step(statement);
}

// An open result would keep the database locked.
void PreparedStatement::finish()
{
    sqlite3_reset(statement);
}

SubscriberStatements::SubscriberStatements(sqlite3 *connection)
    // At once for writing, so that somebody else's write is waited for here: a transaction that has read
    // before would not get the lock at all.
    : begin(connection, "BEGIN IMMEDIATE"),
      commit(connection, "COMMIT"),
      rollback(connection, "ROLLBACK"),
      savepoint(connection, "SAVEPOINT write"),
      release(connection, "RELEASE write"),
      rollbackToSavepoint(connection, "ROLLBACK TO write"),
      insertSubscriber(connection,
                       "INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time,"
                       "                          num_discovery_attempts, last_discovery_attempt, "
                       "protocol_version) VALUES (:esn, :suid, :addr, :avail, :contact_time, :attempts, "
                       ":discover_time, :protocol_version)"),
      selectId(connection, "SELECT id FROM subscribers WHERE esn=:esn"),
      updateSubscriber(connection,
                       "UPDATE subscribers SET suid=:suid, ip_address=:addr, availability=:avail,"
                       "        last_contact_time=:contact_time, num_discovery_attempts=:attempts,"
                       "        last_discovery_attempt=:discover_time, "
                       "protocol_version=:protocol_version WHERE id=:id"),
      deleteSubscriber(connection, "DELETE FROM subscribers WHERE esn=:esn"),
      insertService(connection,
                    "INSERT INTO supported_services (subscriber_id, service) VALUES(:id, :service)"),
      deleteServices(connection, "DELETE FROM supported_services WHERE subscriber_id=:id")
{
}

} // namespace QMR
