// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>

// The order in which the radios of a table register: all over the table, and none again before all have had
// their turn. Of a large table only so many take part, evenly spread.
class RadioOrder
{
public:
    explicit RadioOrder(uint32_t tableSize, uint32_t participants = UINT32_MAX)
        : size(tableSize), cycle(std::min(tableSize, participants))
    {
        while (std::gcd(stride(), size) != 1) {
            ++offset;
        }
    }

    uint32_t participants() const { return cycle; }

    uint32_t next()
    {
        const auto radio = static_cast<uint32_t>(uint64_t{turn} * stride() % size);
        turn = (turn + 1) % cycle;
        return radio;
    }

private:
    // By the golden ratio, so that any number of turns in a row is spread evenly.
    uint32_t stride() const { return static_cast<uint32_t>(size * 0.618033988749895) + offset; }

    uint32_t size;
    uint32_t cycle;
    uint32_t offset = 0;
    uint32_t turn = 0;
};
