// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QtGlobal>

#include <vector>

namespace Monitor {

// How often something happened in each of the last periods of equal length.
class Rate
{
public:
    // period: ms. Nothing has happened before now (ms, of any clock that does not go back).
    Rate(qint64 period, size_t periods, qint64 now);

    void count(qint64 now);
    // Of each whole period, the last one first to end before now; those that have not been lived through are
    // 0.
    std::vector<quint32> counts(qint64 now);
    quint32 last(qint64 now); // of the last whole period

private:
    void advance(qint64 now);

    const qint64 period;
    std::vector<quint32> ring; // the period that goes on, and those before it
    qint64 current;            // which one goes on
};

} // namespace Monitor
