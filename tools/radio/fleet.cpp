// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/fleet.h"

#include "tools/radio/radio.h"

#include <QCoreApplication>
#include <QtEndian>

#include <algorithm>
#include <limits>

using namespace Qt::StringLiterals;

namespace RadioTool {

namespace {

constexpr qint64 NanosecondsAMillisecond = 1'000'000;
constexpr double NanosecondsASecond = 1e9;
constexpr int ProgressPeriod = 500; // ms

} // namespace

Identity fleetMember(const Identity &first, quint32 pendingPercent, quint32 index)
{
    Identity member = first;
    qToBigEndian(qFromBigEndian<quint64>(first.esn.bytes.data()) + index, member.esn.bytes.data());
    const quint32 unit = first.suid.unit() + index;
    member.suid.bytes[4] = static_cast<quint8>(unit >> 16);
    member.suid.bytes[5] = static_cast<quint8>(unit >> 8);
    member.suid.bytes[6] = static_cast<quint8>(unit);
    member.pending = quint64{index} * pendingPercent % 100 + pendingPercent >= 100;
    return member;
}

// NOLINTNEXTLINE(modernize-pass-by-value): copied once in a run
Fleet::Fleet(const Settings &newSettings)
    : settings(newSettings), report(settings.json), members(settings.fleet.count)
{
    const FleetSettings &fleet = settings.fleet;
    limit = fleet.rounds > 0 ? fleet.rounds * fleet.count : std::numeric_limits<quint64>::max();
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
    if (!openSockets()) {
        QCoreApplication::exit(Console::ExitError);
        return;
    }
    if (Console::isTerminalError()) {
        progressTimer.start(ProgressPeriod);
    }
    clock.start();
    pump();
}

bool Fleet::openSockets()
{
    const auto handler = [this](const QByteArray &datagram, const Console::Endpoint &) { handle(datagram); };
    const quint32 count = std::clamp<quint32>(settings.fleet.addressCount, 1, settings.fleet.count);
    sockets.reserve(count);
    for (quint32 i = 0; i < count; ++i) {
        const QHostAddress address = settings.fleet.addressCount > 0
                                         ? QHostAddress(settings.fleet.firstAddress + i)
                                         : RadioSocket::addressTowards(settings.server);
        sockets.push_back(std::make_unique<RadioSocket>(handler));
        if (address.isNull() || !sockets.back()->open(address, 0)) {
            Console::writeError(
                u"cannot open a socket at %1: %2"_s.arg(address.toString(), sockets.back()->errorText()));
            return false;
        }
    }
    return true;
}

void Fleet::handle(const QByteArray &datagram)
{
    const QMR::Qmrs::ServerMessage message = QMR::Qmrs::decodeServerMessage(datagram);
    const quint64 index = qFromBigEndian<quint64>(message.esn.bytes.data()) -
                          qFromBigEndian<quint64>(settings.radio.esn.bytes.data());
    if (message.kind != QMR::Qmrs::ServerMessage::Kind::Acknowledgement || index >= members.size()) {
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
    if (held || underWay == 0) {
        timer.start(0);
    }
}

// Does what is due, and arms the timer for what is due next.
void Fleet::pump()
{
    const qint64 now = clock.nsecsElapsed();
    expireDeadlines(now);
    sendRegistrations(now);
    if (!failed && !isRegistering(now) && underWay == 0) {
        if (!settings.fleet.deregister) {
            finish();
            return;
        }
        sendDeregistrations(now);
        if (statistics.deregistered >= std::min<quint64>(statistics.sent, members.size())) {
            finish();
            return;
        }
    }
    if (failed) {
        QCoreApplication::exit(Console::ExitError);
        return;
    }
    arm(now);
}

void Fleet::expireDeadlines(qint64 now)
{
    while (!deadlines.empty() && deadlines.front().time <= now && !failed) {
        const Deadline deadline = deadlines.front();
        deadlines.pop_front();
        Member &member = members[deadline.member];
        if (!member.waiting || member.registrations != deadline.registration) {
            continue;
        }
        if (member.repeats < settings.retries) {
            // Not sent for want of buffers is as good as lost on the way: the next deadline is its.
            transmitRegistration(deadline.member, now);
            ++member.repeats;
            ++statistics.repeated;
        } else {
            member.waiting = false;
            --underWay;
            ++statistics.lost;
        }
    }
}

void Fleet::sendRegistrations(qint64 now)
{
    held = false;
    const quint64 due = dueBy(now, 0);
    while (isRegistering(now) && statistics.sent < due && !failed) {
        const auto index = static_cast<quint32>(statistics.sent % members.size());
        Member &member = members[index];
        held = underWay >= settings.fleet.window || member.waiting;
        if (held || !transmitRegistration(index, now)) {
            return;
        }
        member.waiting = true;
        member.firstSent = clock.nsecsElapsed();
        member.repeats = 0;
        ++statistics.sent;
        ++underWay;
    }
}

void Fleet::sendDeregistrations(qint64 now)
{
    if (deregisteringSince < 0) {
        deregisteringSince = now;
    }
    const auto due = std::min<quint64>({dueBy(now, deregisteringSince), statistics.sent, members.size()});
    while (statistics.deregistered < due && !failed) {
        const auto index = static_cast<quint32>(statistics.deregistered);
        const Identity member = fleetMember(settings.radio, settings.fleet.pendingPercent, index);
        if (!transmit(index, QMR::Qmrs::encodeDeregistration(member.protocolVersion, member.esn))) {
            return;
        }
        ++statistics.deregistered;
    }
}

bool Fleet::isRegistering(qint64 now) const
{
    const qint64 duration = settings.fleet.duration;
    return !interrupted && statistics.sent < limit &&
           (duration == 0 || now < duration * NanosecondsAMillisecond);
}

// False: not now, or never (failed).
bool Fleet::transmit(quint32 member, const QByteArray &datagram)
{
    RadioSocket &socket = *sockets[member % sockets.size()];
    const RadioSocket::Outcome outcome = socket.send(datagram, settings.server);
    if (outcome == RadioSocket::Outcome::Failed) {
        failed = true;
        Console::writeProgress(QString());
        Console::writeError(u"cannot send from %1 to %2: %3"_s.arg(
            socket.local().text(), settings.server.text(), socket.errorText()));
    }
    return outcome == RadioSocket::Outcome::Sent;
}

bool Fleet::transmitRegistration(quint32 index, qint64 now)
{
    Member &member = members[index];
    const bool repeated = member.waiting;
    const bool sent =
        transmit(index, registrationOf(fleetMember(settings.radio, settings.fleet.pendingPercent, index)));
    if (sent && !repeated) {
        ++member.registrations;
    }
    if (sent || repeated) {
        deadlines.push_back({now + settings.timeout * NanosecondsAMillisecond, index, member.registrations});
    }
    return sent;
}

// How many, at the rate, should have been sent by now: the first one at once.
quint64 Fleet::dueBy(qint64 now, qint64 start) const
{
    return static_cast<quint64>(static_cast<double>(now - start) / NanosecondsASecond * settings.fleet.rate) +
           1;
}

void Fleet::arm(qint64 now)
{
    qint64 next = deadlines.empty() ? std::numeric_limits<qint64>::max() : deadlines.front().time;
    const auto timeOf = [this](quint64 index) {
        return static_cast<qint64>(static_cast<double>(index) / settings.fleet.rate * NanosecondsASecond);
    };
    if (deregisteringSince >= 0) {
        next = std::min(next, deregisteringSince + timeOf(statistics.deregistered));
    } else if (isRegistering(now) && !held) {
        next = std::min(next, timeOf(statistics.sent));
    }
    if (isRegistering(now) && settings.fleet.duration > 0) {
        next = std::min(next, settings.fleet.duration * NanosecondsAMillisecond);
    }
    const qint64 wait = (next - now + NanosecondsAMillisecond - 1) / NanosecondsAMillisecond;
    // At least a millisecond: what could not be sent for full buffers is due already.
    timer.start(static_cast<int>(std::clamp<qint64>(wait, 1, 60'000)));
}

void Fleet::interrupt()
{
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
    timer.stop();
    progressTimer.stop();
    Console::writeProgress(QString());
    statistics.elapsed = clock.elapsed();
    report.summary(statistics);
    QCoreApplication::exit(statistics.lost > 0 ? ExitNotAcknowledged : Console::ExitSuccess);
}

} // namespace RadioTool
