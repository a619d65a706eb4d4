// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/fleet.h"

#include "tools/radio/radiosocket.h"

#include <QCoreApplication>

#include <algorithm>
#include <limits>
#include <span>

using namespace Qt::StringLiterals;

namespace RadioTool {

namespace {

constexpr qint64 NanosecondsAMillisecond = 1'000'000;
constexpr int ProgressPeriod = 500; // ms

} // namespace

// NOLINTNEXTLINE(modernize-pass-by-value): copied once in a run
Fleet::Fleet(const Settings &newSettings)
    : settings(newSettings),
      report(settings.json),
      pacing(settings.fleet.rate),
      fleet(settings),
      socket(FleetSocket::create(
          settings.server, {[this](QByteArrayView datagram, quint32 receiver) { handle(datagram, receiver); },
                            [this] { turnEnded(); }})),
      members(settings.fleet.count)
{
    const quint64 rounds = settings.fleet.rounds;
    limit = rounds > 0 ? rounds * settings.fleet.count : std::numeric_limits<quint64>::max();
    timer.setSingleShot(true);
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, &timer, [this] { pump(); });
    QObject::connect(&progressTimer, &QTimer::timeout, &progressTimer, [this] {
        statistics.elapsed = clock.elapsed();
        Console::writeProgress(Report::progress(statistics));
    });
}

void Fleet::start()
{
    if (const QString error = open(); !error.isNull()) {
        fail(error);
        return;
    }
    if (Console::isTerminalError()) {
        progressTimer.start(ProgressPeriod);
    }
    clock.start();
    pump();
}

// The error, or null.
QString Fleet::open()
{
    quint32 first = settings.fleet.firstAddress;
    if (settings.fleet.addressCount == 0) {
        const Console::Parsed<QHostAddress> own = RadioSocket::addressTowards(settings.server);
        if (!own) {
            return own.error;
        }
        first = (*own).toIPv4Address();
    }
    const quint32 count = std::clamp<quint32>(settings.fleet.addressCount, 1, settings.fleet.count);
    fleet.setAddresses(first, count);
    return socket->open(first, count);
}

void Fleet::handle(QByteArrayView datagram, quint32 receiver)
{
    const QMR::Qmrs::ServerMessage message = QMR::Qmrs::decodeServerMessage(datagram);
    const quint32 index = fleet.indexOf(message.esn);
    if (message.kind != QMR::Qmrs::ServerMessage::Kind::Acknowledgement || index == fleet.count() ||
        receiver != fleet.addressOf(index)) {
        ++statistics.unexpected;
        return;
    }
    Member &member = members[index];
    if (!member.waiting) {
        ++statistics.late;
        return;
    }
    statistics.addLatency(clock.nsecsElapsed() - member.firstSent);
    member.waiting = false;
    --underWay;
}

// Nothing else is waited for, or something due waits for what may have come.
void Fleet::turnEnded()
{
    if (held || (underWay == 0 && !isRegistering(clock.nsecsElapsed()))) {
        pump();
    }
}

// Does what is due, and arms the timer for what is due next.
void Fleet::pump()
{
    if (ended) {
        return;
    }
    const qint64 now = clock.nsecsElapsed();
    congested = false;
    expireDeadlines(now);
    sendRegistrations(now);
    if (!ended && !isRegistering(now) && underWay == 0) {
        if (settings.fleet.deregister) {
            sendDeregistrations(now);
        }
        if (!ended && (!settings.fleet.deregister || isDeregistered())) {
            finish();
        }
    }
    if (!ended) {
        arm(now);
    }
}

void Fleet::expireDeadlines(qint64 now)
{
    while (!deadlines.empty() && deadlines.front().time <= now && !ended) {
        const Deadline deadline = deadlines.front();
        deadlines.pop_front();
        Member &member = members[deadline.member];
        if (!member.waiting || member.registrations != deadline.registration) {
            continue;
        }
        if (member.repeats < settings.retries) {
            addRegistration(deadline.member);
            deadlines.push_back(
                {now + settings.timeout * NanosecondsAMillisecond, deadline.member, member.registrations});
            ++member.repeats;
            ++statistics.repeated;
        } else {
            member.waiting = false;
            --underWay;
            ++statistics.lost;
        }
        if (batched == batch.size()) {
            transmit();
            socket->receive();
        }
    }
    // Not sent for want of buffers is as good as lost on the way: the next deadline is its.
    transmit();
}

void Fleet::sendRegistrations(qint64 now)
{
    held = false;
    const quint64 due = std::min(pacing.dueBy(now), limit);
    quint64 allowed = settings.fleet.window;
    while (isRegistering(now) && statistics.sent < due && allowed > 0 && !ended) {
        const size_t count = sendableRegistrations(due, allowed);
        held = count == 0;
        if (held) {
            return;
        }
        for (size_t i = 0; i < count; ++i) {
            addRegistration(static_cast<quint32>((statistics.sent + i) % members.size()));
        }
        const qint64 before = clock.nsecsElapsed();
        const size_t sent = transmit();
        noteRegistrations(sent, before, clock.nsecsElapsed());
        allowed -= sent;
        if (sent < count) {
            return;
        }
        socket->receive(); // before so many come that the system has no room for them
    }
}

// How many of those that are due can leave as the next batch.
size_t Fleet::sendableRegistrations(quint64 due, quint64 allowed) const
{
    const auto most = std::min<quint64>({due - statistics.sent, allowed, batch.size(), members.size(),
                                         quint64{settings.fleet.window} - underWay});
    size_t count = 0;
    while (count < most && !members[(statistics.sent + count) % members.size()].waiting) {
        ++count;
    }
    return count;
}

// The next so many registrations have left, evenly between the two times.
void Fleet::noteRegistrations(size_t count, qint64 before, qint64 after)
{
    for (size_t i = 0; i < count; ++i) {
        const auto index = static_cast<quint32>(statistics.sent % members.size());
        Member &member = members[index];
        member.waiting = true;
        member.firstSent = before + (after - before) * static_cast<qint64>(i) / static_cast<qint64>(count);
        member.repeats = 0;
        ++member.registrations;
        ++statistics.sent;
        ++underWay;
        deadlines.push_back(
            {after + settings.timeout * NanosecondsAMillisecond, index, member.registrations});
    }
}

void Fleet::sendDeregistrations(qint64 now)
{
    if (deregisteringSince < 0) {
        deregisteringSince = now;
    }
    const auto due = std::min<quint64>({pacing.dueBy(now - deregisteringSince), statistics.sent,
                                        members.size(), statistics.deregistered + settings.fleet.window});
    while (statistics.deregistered < due && !ended) {
        const size_t count = std::min<size_t>(due - statistics.deregistered, batch.size());
        for (; batched < count; ++batched) {
            const auto index = static_cast<quint32>(statistics.deregistered + batched);
            FleetDatagram &datagram = batch[batched];
            datagram.source = fleet.addressOf(index);
            datagram.size = fleet.writeDeregistration(index, datagram.bytes);
        }
        const size_t sent = transmit();
        statistics.deregistered += sent;
        if (sent < count) {
            return;
        }
    }
}

bool Fleet::isRegistering(qint64 now) const
{
    const qint64 duration = settings.fleet.duration;
    return !interrupted && statistics.sent < limit &&
           (duration == 0 || now < duration * NanosecondsAMillisecond);
}

bool Fleet::isDeregistered() const
{
    return statistics.deregistered >= std::min<quint64>(statistics.sent, members.size());
}

// To the batch, which has room.
void Fleet::addRegistration(quint32 index)
{
    FleetDatagram &datagram = batch[batched++];
    datagram.source = fleet.addressOf(index);
    datagram.size = fleet.writeRegistration(index, datagram.bytes);
}

// Sends the batch and empties it. How many have left; the others could not now, or never can (ended).
size_t Fleet::transmit()
{
    const FleetSocket::Sending result = socket->send(std::span(batch).first(batched));
    congested = congested || result.count < batched;
    batched = 0;
    if (!result.error.isNull()) {
        Console::writeProgress(QString());
        fail(result.error);
    }
    return result.count;
}

void Fleet::arm(qint64 now)
{
    qint64 next = deadlines.empty() ? std::numeric_limits<qint64>::max() : deadlines.front().time;
    if (deregisteringSince >= 0) {
        next = std::min(next, deregisteringSince + pacing.timeOf(statistics.deregistered));
    } else if (isRegistering(now) && !held) {
        next = std::min(next, pacing.timeOf(statistics.sent));
    }
    if (isRegistering(now) && settings.fleet.duration > 0) {
        next = std::min(next, settings.fleet.duration * NanosecondsAMillisecond);
    }
    const qint64 wait = (next - now + NanosecondsAMillisecond - 1) / NanosecondsAMillisecond;
    // What waits for room in the system's buffers is due already.
    timer.start(static_cast<int>(std::clamp<qint64>(wait, congested ? 1 : 0, 60'000)));
}

void Fleet::interrupt()
{
    if (ended) {
        return;
    }
    if (interrupted) {
        statistics.lost += underWay;
        finish();
        return;
    }
    interrupted = true;
    timer.start(0);
}

void Fleet::finish()
{
    ended = true;
    timer.stop();
    progressTimer.stop();
    Console::writeProgress(QString());
    statistics.elapsed = clock.elapsed();
    report.summary(statistics);
    QCoreApplication::exit(statistics.lost > 0 ? ExitNotAcknowledged : Console::ExitSuccess);
}

void Fleet::fail(const QString &error)
{
    ended = true;
    timer.stop();
    progressTimer.stop();
    Console::writeError(error);
    QCoreApplication::exit(Console::ExitError);
}

} // namespace RadioTool
