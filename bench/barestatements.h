// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>

#include <array>
#include <cstdint>
#include <span>

struct sqlite3;
struct sqlite3_stmt;

// The SQL of the server's writes, run through SQLite's own interface: what a registration costs the database
// alone. Any failure ends the run.
class BareStatements
{
public:
    enum class Journal { Rollback, WriteAhead };

    // Opens or makes the database. The journal mode is stored in the file; everything else is as SQLite does
    // it by default: a rollback journal is removed at each commit, and each commit is synced.
    BareStatements(const QString &file, Journal journal);
    ~BareStatements();
    Q_DISABLE_COPY_MOVE(BareStatements)

    // Rows of radios 0 to count - 1, registered at the given time, two services each.
    void fill(uint32_t count, int64_t time);
    // What the registrations of known radios write, in one transaction.
    void update(std::span<const uint32_t> radios, int64_t time);

    // The ESN of a radio: its number, spread over all 8 bytes so that neighbours are not neighbours in the
    // tree.
    static std::array<uint8_t, 8> esn(uint32_t radio);
    // On loopback: what the server sends to a radio of a benchmark stays on this machine.
    static uint32_t address(uint32_t radio) { return FirstAddress + radio; }
    static uint32_t radioAt(uint32_t address) { return address - FirstAddress; }

    static constexpr uint32_t FirstAddress = 0x7F000002U;
    static constexpr std::array<uint8_t, 7> Suid = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
    static constexpr std::array<int, 2> Services = {1, 3};

private:
    void run(const char *sql);
    void step(sqlite3_stmt *statement);
    int64_t selectId(const std::array<uint8_t, 8> &esn);
    void insertServices(int64_t id);
    void update(uint32_t radio, int64_t time);

    sqlite3 *database = nullptr;
    std::array<sqlite3_stmt *, 7> statements{};
};
