// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/rate.h"

#include <algorithm>

namespace Monitor {

Rate::Rate(qint64 newPeriod, size_t periods, qint64 now)
    : period(newPeriod), ring(periods + 1), current(now / newPeriod)
{
}

void Rate::count(qint64 now)
{
    advance(now);
    ++ring[static_cast<size_t>(current) % ring.size()];
}

std::vector<quint32> Rate::counts(qint64 now)
{
    advance(now);
    std::vector<quint32> result(ring.size() - 1);
    for (size_t i = 0; i < result.size(); ++i) {
        result[i] = ring[(static_cast<size_t>(current) + 1 + i) % ring.size()];
    }
    return result;
}

quint32 Rate::last(qint64 now)
{
    advance(now);
    return ring[(static_cast<size_t>(current) + ring.size() - 1) % ring.size()];
}

void Rate::advance(qint64 now)
{
    const qint64 target = std::max(current, now / period);
    const qint64 passed = std::min(target - current, static_cast<qint64>(ring.size()));
    for (qint64 i = 0; i < passed; ++i) {
        ring[static_cast<size_t>(target - i) % ring.size()] = 0;
    }
    current = target;
}

} // namespace Monitor
