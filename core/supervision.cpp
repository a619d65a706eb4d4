// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "core/clock.h"
#include "db/writegroup.h"
#include "radio/registrationmanager.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace QMR {

namespace {

constexpr qint64 SilenceLimit = 43200; // seconds
constexpr quint16 AttemptLimit = 3;

// What is left from now to then, 0 when then has passed.
qint64 millisecondsUntil(const QDateTime &then, const QDateTime &now)
{
    return std::max<qint64>(now.msecsTo(then), 0);
}

// Rounded up: a request never leaves before it is due.
qint64 wholeSecondsUntil(const QDateTime &then, const QDateTime &now)
{
    return (millisecondsUntil(then, now) + 999) / 1000;
}

// A timer cannot wait longer than its interval's 32 bits; it then fires early and is armed again.
std::chrono::milliseconds timerInterval(qint64 milliseconds)
{
    return std::chrono::milliseconds(std::clamp<qint64>(milliseconds, 0, std::numeric_limits<int>::max()));
}

} // namespace

// Seconds until the first radio in the queue may be sent a discovery request; 0 or less: now.
qint64 Quillmere::secondsToDiscovery() const
{
    const QDateTime now = currentTime();
    const qint64 untilDue = wholeSecondsUntil(nextDiscoveryTime(**discoveryQueue.begin()), now);
    const qint64 untilSpaced = wholeSecondsUntil(lastDiscoveryRun.addSecs(minimumDiscoveryPeriod), now);
    // Deliberately compared as signed 32-bit numbers: a wait of 2^31 seconds (68 years) or more counts as
    // none.
    return std::max(static_cast<qint32>(untilDue), static_cast<qint32>(untilSpaced));
}

void Quillmere::rearmDiscoveryTimer()
{
    discoveryTimer.stop();
    if (!discoveryQueue.empty()) {
        discoveryTimer.start(timerInterval(secondsToDiscovery() * 1000));
    }
}

// One radio an expiry; the spacing between radios is the timer's.
void Quillmere::eventDiscoveryTimerExpired()
{
    const WriteTurn turn(writes.get());
    if (discoveryQueue.empty()) {
        return;
    }
    if (secondsToDiscovery() > 0) {
        rearmDiscoveryTimer();
        return;
    }
    const RadioPointer radio = *discoveryQueue.begin();
    const QDateTime now = currentTime();
    const bool stale = radio->lastContactTime.secsTo(now) >= SilenceLimit;
    const bool exhausted = radio->discoveryAttempts >= AttemptLimit;
    if (radio->availability != Unconfirmed) {
        if (stale && exhausted) {
            setAvailability(radio, Deregistered);
            return;
        }
    } else if (!stale && exhausted) {
        // A stale unconfirmed radio is deliberately not touched here: the timeout check makes it unreachable.
        setAvailability(radio, Unreachable);
    }
    registrationManager->sendDiscoveryRequest(radio);
    unscheduleDiscovery(radio);
    radio->lastDiscoveryAttempt = now;
    ++radio->discoveryAttempts;
    updateSubscriber(*radio);
    lastDiscoveryRun = now;
    scheduleDiscovery(radio);
}

void Quillmere::eventTimeoutCheckTimerExpired()
{
    const WriteTurn turn(writes.get());
    const QDateTime threshold = currentTime().addSecs(-SilenceLimit);
    for (const auto &[esn, radio] : radiosByEsn) {
        const bool inContact = radio->availability == Unconfirmed || radio->availability == Registered;
        if (inContact && radio->lastContactTime < threshold) {
            setAvailability(radio, Unreachable);
        }
    }
}

void Quillmere::rearmHeartbeatTimer()
{
    heartbeatTimer.stop();
    if (!heartbeatQueue.empty()) {
        const QDateTime deadline = (*heartbeatQueue.begin())->pendingDeadline;
        heartbeatTimer.start(timerInterval(millisecondsUntil(deadline, currentTime())));
    }
}

void Quillmere::eventHeartbeatTimerExpired()
{
    const WriteTurn turn(writes.get());
    const QDateTime now = currentTime();
    while (!heartbeatQueue.empty() && (*heartbeatQueue.begin())->pendingDeadline <= now) {
        const RadioPointer radio = *heartbeatQueue.begin();
        deregisterPending(radio);
    }
    rearmHeartbeatTimer();
}

} // namespace QMR
