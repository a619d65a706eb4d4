// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "bench/barestatements.h"

#include <QString>

#include <algorithm>
#include <chrono>
#include <vector>

// How long everything is measured.
struct Plan
{
    int rounds = 15;
    std::chrono::milliseconds round{350};
    int bursts = 3; // of each size
    std::chrono::milliseconds lock{2000};
    std::vector<uint32_t> tableSizes{1000, 100'000, 1'000'000};
    uint32_t participants = 50'000; // radios of a large table that register

    static Plan quick()
    {
        return {3,     std::chrono::milliseconds(150), 1, std::chrono::milliseconds(500), {1000, 100'000},
                10'000};
    }
};

// A column of the table.
struct Place
{
    QString name;
    QString folder;
    BareStatements::Journal journal = BareStatements::Journal::Rollback;
    bool isDisk = false;
};

inline double median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}
