// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/pacing.h"

#include <algorithm>
#include <cmath>

namespace RadioTool {

namespace {

constexpr quint64 Million = 1'000'000;
constexpr quint64 Period = Million * Million; // 1000 s in ns

} // namespace

Pacing::Pacing(double rate)
    : thousandths(static_cast<quint64>(std::clamp<qint64>(std::llround(rate * 1000), 1, 1'000'000'000)))
{
}

// index * Period / thousandths, a factor of a million at a time: the products stay below 2^63.
qint64 Pacing::timeOf(quint64 index) const
{
    const quint64 periods = index / thousandths;
    const quint64 first = index % thousandths * Million;
    const quint64 second = first % thousandths * Million;
    const quint64 roundedUp = (second + thousandths - 1) / thousandths;
    return static_cast<qint64>(periods * Period + first / thousandths * Million + roundedUp);
}

// elapsed * thousandths / Period, in the same way.
quint64 Pacing::dueBy(qint64 elapsed) const
{
    const auto time = static_cast<quint64>(elapsed);
    const quint64 periods = time / Period;
    const quint64 rest = time % Period;
    const quint64 lower = rest % Million * thousandths / Million;
    return periods * thousandths + (rest / Million * thousandths + lower) / Million + 1;
}

} // namespace RadioTool
