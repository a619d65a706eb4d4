// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "bench/plan.h"
#include "bench/table.h"

// Fills rows of the table: what a registration costs in tables of several sizes, in memory, and how long a
// start takes with so many stored radios, in memory and on a disk that has not read them lately.
class SizeBench
{
public:
    // The folders, and their columns.
    SizeBench(const Plan &plan, Table &table, qsizetype diskColumn, QString disk, qsizetype memoryColumn,
              QString memory);
    Q_DISABLE_COPY_MOVE(SizeBench)

    void run();

private:
    struct Size;

    Size open(uint32_t radios);
    void startFromDisk(const QString &database, uint32_t radios);
    void putStart(qsizetype column, uint32_t radios, double seconds);
    void measure(Size &size);
    void put(const Size &size, const Size &smallest);

    const Plan &plan;
    Table &table;
    const qsizetype diskColumn;
    const QString disk;
    const qsizetype memoryColumn;
    const QString memory;
};
