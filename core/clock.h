// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The one source of time: what o'clock it is, and how much has passed.
#pragma once

#include <QDateTime>

#include <chrono>
#include <functional>

namespace QMR {

// The wall clock, or what a test has put in its place. In UTC, so that time zone rules never enter a
// comparison.
QDateTime currentTime();

// Replaces the clock; an empty function brings the wall clock back.
void setClock(std::function<QDateTime()> clock);

// Time since some moment that stays the same for the life of the process; nobody can set it back.
std::chrono::nanoseconds elapsedTime();

// Replaces its source; an empty function brings the machine's own back.
void setElapsedTime(std::function<std::chrono::nanoseconds()> source);

// A length of time from its making. Work asks it whether to stop, so that whatever else waits has its turn.
class TimeSlice
{
public:
    explicit TimeSlice(std::chrono::nanoseconds length) : start(elapsedTime()), longest(length) {}

    bool isOver() const { return elapsedTime() - start >= longest; }

private:
    std::chrono::nanoseconds start;
    std::chrono::nanoseconds longest;
};

} // namespace QMR
