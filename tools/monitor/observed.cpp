// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/observed.h"

namespace Monitor {

namespace {

constexpr qint64 Second = 1000;
constexpr qint64 Minute = 60 * Second;
constexpr size_t Seconds = size_t{15} * 60;
constexpr size_t Minutes = size_t{24} * 60;

} // namespace

Activity::Activity(qint64 now)
    : registrationsInSeconds(Second, Seconds, now),
      registrationsInMinutes(Minute, Minutes, now),
      changesInSeconds(Second, Seconds, now),
      changesInMinutes(Minute, Minutes, now)
{
}

void Activity::registered(qint64 now)
{
    registrationsInSeconds.count(now);
    registrationsInMinutes.count(now);
}

void Activity::changed(qint64 now)
{
    changesInSeconds.count(now);
    changesInMinutes.count(now);
}

Activity::Counts Activity::seconds(qint64 now)
{
    return {registrationsInSeconds.counts(now), changesInSeconds.counts(now)};
}

Activity::Counts Activity::minutes(qint64 now)
{
    return {registrationsInMinutes.counts(now), changesInMinutes.counts(now)};
}

quint32 Activity::lastRegistrations(qint64 now)
{
    return registrationsInSeconds.last(now);
}

quint32 Activity::lastChanges(qint64 now)
{
    return changesInSeconds.last(now);
}

} // namespace Monitor
