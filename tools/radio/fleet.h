// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/radio/fleetmembers.h"
#include "tools/radio/fleetsocket.h"
#include "tools/radio/pacing.h"
#include "tools/radio/report.h"

#include <QElapsedTimer>
#include <QTimer>

#include <array>
#include <deque>
#include <memory>
#include <vector>

namespace RadioTool {

// Many radios that register at a steady rate, one after the other, each from its own address. One timer is
// armed for what is due next; the registrations under way, and those that leave in one go, are bounded by the
// window. Ends the event loop with the tool's exit code.
class Fleet
{
public:
    explicit Fleet(const Settings &settings);
    Q_DISABLE_COPY_MOVE(Fleet)

    void start();
    // The first time: no more registrations, the rest goes on. The second time: ends at once.
    void interrupt();

private:
    // All that is kept of a radio: a fleet may have millions.
    struct Member
    {
        qint64 firstSent = 0; // ns since the start
        quint32 registrations = 0;
        quint8 repeats = 0;   // at most 100
        bool waiting = false; // for an acknowledgement
    };
    static_assert(sizeof(Member) == 16);
    struct Deadline
    {
        qint64 time = 0; // ns since the start
        quint32 member = 0;
        quint32 registration = 0;
    };

    QString open();
    void handle(QByteArrayView datagram, quint32 receiver);
    void turnEnded();
    void pump();
    void expireDeadlines(qint64 now);
    void sendRegistrations(qint64 now);
    size_t sendableRegistrations(quint64 due, quint64 allowed) const;
    void noteRegistrations(size_t count, qint64 before, qint64 after);
    void sendDeregistrations(qint64 now);
    bool isRegistering(qint64 now) const;
    bool isDeregistered() const;
    void addRegistration(quint32 member);
    size_t transmit();
    void arm(qint64 now);
    void finish();
    void fail(const QString &error);

    const Settings settings;
    const Report report;
    const Pacing pacing;
    FleetMembers fleet;
    Statistics statistics;
    std::unique_ptr<FleetSocket> socket;
    std::vector<Member> members;
    std::deque<Deadline> deadlines; // in order: all have the same timeout
    std::array<FleetDatagram, 32> batch{};
    size_t batched = 0;
    QElapsedTimer clock;
    QTimer timer;
    QTimer progressTimer;
    quint64 limit = 0; // registrations in all
    quint32 underWay = 0;
    qint64 deregisteringSince = -1; // ns since the start
    bool held = false;              // registrations are due and wait for an acknowledgement
    bool congested = false;         // the system's buffers were full
    bool interrupted = false;
    bool ended = false;
};

} // namespace RadioTool
