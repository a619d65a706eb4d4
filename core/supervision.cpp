// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "core/clock.h"
#include "db/writegroup.h"
#include "radio/registrationmanager.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <tuple>

using namespace std::chrono_literals;

namespace QMR {

namespace {

constexpr qint64 SilenceLimit = 43200; // seconds
constexpr quint16 AttemptLimit = 3;
constexpr qint64 UnconfirmedSpacing = 300; // seconds
constexpr qint64 OtherSpacing = 1800;      // seconds
constexpr qint64 PendingLifetime = 17;     // seconds
constexpr auto TimeoutCheckPeriod = 5min;

// A walk over many radios stops after this time and goes on in a posted event, so that whatever else is
// waiting has its turn. The commit at the end of each slice takes its time on top.
constexpr auto LongestSlice = 5ms;
constexpr int RadiosPerClockRead = 16;

bool isStale(const RadioEntry &radio, const QDateTime &now)
{
    return radio.lastContactTime.secsTo(now) >= SilenceLimit;
}

qint64 discoverySpacing(const RadioEntry &radio)
{
    return radio.availability == Unconfirmed ? UnconfirmedSpacing : OtherSpacing;
}

// nextDiscoveryTime() in milliseconds since 1970, for the queue's many comparisons.
qint64 dueTime(const RadioEntry &radio)
{
    return radio.lastDiscoveryAttempt.toMSecsSinceEpoch() + discoverySpacing(radio) * 1000;
}

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

void Quillmere::prepareSupervision()
{
    discoveryTimer.setSingleShot(true);
    heartbeatTimer.setSingleShot(true);
    heartbeatTimer.setTimerType(Qt::PreciseTimer);
    connect(&discoveryTimer, &QTimer::timeout, this, &Quillmere::eventDiscoveryTimerExpired);
    connect(&heartbeatTimer, &QTimer::timeout, this, &Quillmere::eventHeartbeatTimerExpired);
    connect(&timeoutCheckTimer, &QTimer::timeout, this, &Quillmere::eventTimeoutCheckTimerExpired);
}

void Quillmere::startTimeoutChecks()
{
    timeoutCheckTimer.start(TimeoutCheckPeriod);
}

void Quillmere::stopSupervision()
{
    timeoutCheckTimer.stop();
    discoveryTimer.stop();
    heartbeatTimer.stop();
    timeoutCheckUnderWay.reset();
    lapsingUntil.reset();
    discoveryQueue.clear();
    heartbeatQueue.clear();
}

bool Quillmere::EarlierDiscovery::operator()(const RadioPointer &a, const RadioPointer &b) const
{
    return std::forward_as_tuple(dueTime(*a), a->esn) < std::forward_as_tuple(dueTime(*b), b->esn);
}

bool Quillmere::EarlierDeadline::operator()(const RadioPointer &a, const RadioPointer &b) const
{
    return std::forward_as_tuple(a->pendingDeadline.toMSecsSinceEpoch(), a->esn) <
           std::forward_as_tuple(b->pendingDeadline.toMSecsSinceEpoch(), b->esn);
}

QDateTime Quillmere::nextDiscoveryTime(const RadioEntry &radio)
{
    return radio.lastDiscoveryAttempt.addSecs(discoverySpacing(radio));
}

// A database can hold a value that has no name; such a radio is searched for like an unreachable one.
bool Quillmere::isSearchedFor(quint32 availability)
{
    return availability != Deregistered && availability != Registered;
}

void Quillmere::scheduleDiscovery(const RadioPointer &radio)
{
    discoveryQueue.insert(radio);
    rearmDiscoveryTimer();
}

void Quillmere::unscheduleDiscovery(const RadioPointer &radio)
{
    discoveryQueue.erase(radio);
    rearmDiscoveryTimer();
}

void Quillmere::scheduleHeartbeat(const RadioPointer &radio)
{
    heartbeatQueue.insert(radio);
    rearmHeartbeatTimer();
}

void Quillmere::awaitConfirmation(const RadioPointer &radio)
{
    radio->pendingDeadline = currentTime().addSecs(PendingLifetime);
    scheduleHeartbeat(radio);
}

void Quillmere::unscheduleHeartbeat(const RadioPointer &radio)
{
    heartbeatQueue.erase(radio);
    rearmHeartbeatTimer();
}

void Quillmere::reviewLoadedRadio(const RadioPointer &radio)
{
    if (radio->availability == Deregistered) {
        removeRadio(radio);
        deleteSubscriber(*radio);
        return;
    }
    const bool stale = isStale(*radio, currentTime());
    if (!stale && radio->availability == Registered) {
        radio->availability = Unconfirmed;
        radio->discoveryAttempts = 0;
    } else if (stale && (radio->availability == Unconfirmed || radio->availability == Registered)) {
        radio->availability = Unreachable;
        radio->discoveryAttempts = 0;
    } else if (stale && radio->availability == Unreachable) {
        radio->discoveryAttempts = 0;
    }
    updateSubscriber(*radio);
    scheduleDiscovery(radio);
}

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

// Serves one radio; the timer, armed anew, keeps the least time to the next.
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
    const bool stale = isStale(*radio, now);
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

// A check that is still under way after five minutes goes on instead of beginning anew.
void Quillmere::eventTimeoutCheckTimerExpired()
{
    if (!timeoutCheckUnderWay) {
        timeoutCheckUnderWay = TimeoutCheck{currentTime().addSecs(-SilenceLimit), std::nullopt};
        continueTimeoutCheck();
    }
}

void Quillmere::continueTimeoutCheck()
{
    if (!timeoutCheckUnderWay) {
        return; // the server has been stopped
    }
    const WriteTurn turn(writes.get());
    const TimeSlice slice(LongestSlice);
    auto &[threshold, last] = *timeoutCheckUnderWay;
    int checked = 0;
    for (auto next = last ? radiosByEsn.upper_bound(*last) : radiosByEsn.begin(); next != radiosByEsn.end();
         ++next) {
        const RadioPointer &radio = next->second;
        const bool inContact = radio->availability == Unconfirmed || radio->availability == Registered;
        if (inContact && radio->lastContactTime < threshold) {
            setAvailability(radio, Unreachable);
        }
        last = next->first;
        if (++checked % RadiosPerClockRead == 0 && slice.isOver()) {
            QMetaObject::invokeMethod(this, &Quillmere::continueTimeoutCheck, Qt::QueuedConnection);
            return;
        }
    }
    timeoutCheckUnderWay.reset();
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
    if (!lapsingUntil) {
        lapsingUntil = currentTime();
        lapsePending();
    }
}

void Quillmere::lapsePending()
{
    if (!lapsingUntil) {
        return; // the server has been stopped
    }
    const WriteTurn turn(writes.get());
    const TimeSlice slice(LongestSlice);
    while (!heartbeatQueue.empty() && (*heartbeatQueue.begin())->pendingDeadline <= *lapsingUntil) {
        const RadioPointer radio = *heartbeatQueue.begin();
        deregisterPending(radio);
        if (slice.isOver()) {
            QMetaObject::invokeMethod(this, &Quillmere::lapsePending, Qt::QueuedConnection);
            return;
        }
    }
    lapsingUntil.reset();
    rearmHeartbeatTimer();
}

} // namespace QMR
