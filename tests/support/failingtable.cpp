// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/failingtable.h"

#include "tests/support/serverdatabase.h"

#include <sqlite3.h>

namespace {

constexpr auto ModuleName = "failing";

} // namespace

// A virtual table, since its connecting to SQLite may fail with whatever code it likes.
class FailingTable::Module
{
public:
    static const sqlite3_module *description()
    {
        static const sqlite3_module module = [] {
            sqlite3_module functions{};
            functions.xCreate = connect;
            functions.xConnect = connect;
            functions.xBestIndex = bestIndex;
            functions.xDisconnect = disconnect;
            functions.xDestroy = disconnect;
            return functions;
        }();
        return &module;
    }

private:
    static int connect(sqlite3 *database, void *client, int, const char *const *, sqlite3_vtab **table,
                       char **)
    {
        auto *failing = static_cast<FailingTable *>(client);
        if (failing && failing->left > 0) {
            --failing->left;
            return failing->resultCode;
        }
        *table = new sqlite3_vtab{};
        return sqlite3_declare_vtab(database, "CREATE TABLE declared (id, database_version)");
    }
    static int bestIndex(sqlite3_vtab *, sqlite3_index_info *) { return SQLITE_OK; }
    static int disconnect(sqlite3_vtab *table)
    {
        delete table;
        return SQLITE_OK;
    }
};

FailingTable::FailingTable(const QString &databaseFile, const QByteArray &name, int failingResultCode,
                           int failures)
    : resultCode(failingResultCode), left(failures)
{
    // It is made where it does not fail, and found by the server's connection afterwards.
    sqlite3 *maker = nullptr;
    const QByteArray statement = "CREATE VIRTUAL TABLE " + name + " USING " + ModuleName;
    if (sqlite3_open(databaseFile.toUtf8().constData(), &maker) != SQLITE_OK ||
        sqlite3_create_module(maker, ModuleName, Module::description(), nullptr) != SQLITE_OK ||
        sqlite3_exec(maker, statement.constData(), nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_close(maker) != SQLITE_OK ||
        sqlite3_create_module(serverDatabase(), ModuleName, Module::description(), this) != SQLITE_OK) {
        qFatal("cannot make the table %s", name.constData());
    }
}

FailingTable::~FailingTable()
{
    sqlite3_create_module(serverDatabase(), ModuleName, nullptr, nullptr);
}
