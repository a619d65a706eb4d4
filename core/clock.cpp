// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/clock.h"

#include <utility>

namespace QMR {

namespace {

std::function<QDateTime()> &replacement()
{
    static std::function<QDateTime()> clock;
    return clock;
}

} // namespace

QDateTime currentTime()
{
    return replacement() ? replacement()() : QDateTime::currentDateTimeUtc();
}

void setClock(std::function<QDateTime()> clock)
{
    replacement() = std::move(clock);
}

} // namespace QMR
