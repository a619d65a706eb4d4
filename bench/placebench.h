// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "bench/plan.h"
#include "bench/radioload.h"
#include "bench/serverprocess.h"
#include "bench/table.h"

#include <optional>

// Fills a column of the table: the server against a bare loop of the same statements, both in one place with
// one journal mode; bursts; a lock.
class PlaceBench
{
public:
    PlaceBench(Place place, qsizetype column, const Plan &plan, Table &table);
    Q_DISABLE_COPY_MOVE(PlaceBench)

    void run();

private:
    struct Figures;

    void compare();
    void measureBare(Figures &figures, RadioOrder &radios);
    void measureServer(Figures &figures, RadioOrder &radios);
    void putComparison(const Figures &figures);
    void burst(uint32_t radios);
    void lock();
    Aim atLeast(double onDisk, double inMemory) const
    {
        return {Aim::AtLeast, place.isDisk ? onDisk : inMemory};
    }

    const Place place;
    const qsizetype column;
    const Plan &plan;
    Table &table;
    ServerProcess server;
    std::optional<BareStatements> bare;
    std::optional<RadioLoad> load;
    uint32_t nextNew; // radio
};

// A second's registrations of known radios by the bare loop, so many in a transaction.
double bareRate(BareStatements &bare, RadioOrder &radios, uint32_t group, std::chrono::milliseconds time);
