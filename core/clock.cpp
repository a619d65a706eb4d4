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

std::function<std::chrono::nanoseconds()> &elapsedReplacement()
{
    static std::function<std::chrono::nanoseconds()> source;
    return source;
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

std::chrono::nanoseconds elapsedTime()
{
    return elapsedReplacement() ? elapsedReplacement()()
                                : std::chrono::steady_clock::now().time_since_epoch();
}

void setElapsedTime(std::function<std::chrono::nanoseconds()> source)
{
    elapsedReplacement() = std::move(source);
}

} // namespace QMR
