// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QString>

#include <array>
#include <cstdint>

struct sqlite3;
struct sqlite3_stmt;

// The SQL of the server's writes, run through SQLite's own interface: what a registration costs the database
// alone. Any failure ends the process.
class BareStatements
{
public:
    // Opens or makes the database; journal mode and synchronisation are SQLite's defaults, as in the server.
    explicit BareStatements(const QString &file);
    ~BareStatements();
    Q_DISABLE_COPY_MOVE(BareStatements)

    void run(const char *sql);
    // Rows of radios 0 to count - 1, registered at the given time, two services each.
    void fill(uint32_t count, int64_t time);

    // What a new radio's registration writes: the inserts, then the update.
    void insert(uint32_t radio, int64_t time);
    // What a known radio's registration writes.
    void update(uint32_t radio, int64_t time);
    void remove(uint32_t radio);

    // The ESN of a radio: its number, spread over all 8 bytes so that neighbours are not neighbours in the
    // tree.
    static std::array<uint8_t, 8> esn(uint32_t radio);
    // On loopback: what the server sends to a radio of a benchmark stays on this machine.
    static uint32_t address(uint32_t radio) { return 0x7F000002U + radio; }

private:
    void step(sqlite3_stmt *statement);
    int64_t selectId(const std::array<uint8_t, 8> &esn);
    void insertServices(int64_t id);

    sqlite3 *database = nullptr;
    std::array<sqlite3_stmt *, 8> statements{};
};
