// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/radio/radiosocket.h"
#include "tools/radio/report.h"

#include <QElapsedTimer>
#include <QTimer>

#include <deque>
#include <memory>
#include <vector>

namespace RadioTool {

// The n-th radio of a fleet: ESN and unit number count up from the first radio's, the pending ones are spread
// evenly.
Identity fleetMember(const Identity &first, quint32 pendingPercent, quint32 index);

// Many radios that register at a steady rate, one after the other, from a socket an address. One timer is
// armed for what is due next; the registrations under way are bounded by the window. Ends the event loop with
// the tool's exit code.
class Fleet
{
public:
    explicit Fleet(const Settings &settings);
    Q_DISABLE_COPY_MOVE(Fleet)

    void start();
    // The first time: no more registrations, the rest goes on. The second time: ends at once.
    void interrupt();

private:
    struct Member
    {
        qint64 firstSent = 0; // ns since the start
        quint32 registrations = 0;
        quint32 repeats = 0;
        bool waiting = false; // for an acknowledgement
    };
    struct Deadline
    {
        qint64 time = 0; // ns since the start
        quint32 member = 0;
        quint32 registration = 0;
    };

    bool openSockets();
    void handle(const QByteArray &datagram);
    void pump();
    void expireDeadlines(qint64 now);
    void sendRegistrations(qint64 now);
    void sendDeregistrations(qint64 now);
    bool isRegistering(qint64 now) const;
    bool transmit(quint32 member, const QByteArray &datagram);
    bool transmitRegistration(quint32 member, qint64 now);
    quint64 dueBy(qint64 now, qint64 start) const;
    void arm(qint64 now);
    void finish();

    const Settings settings;
    const Report report;
    Statistics statistics;
    std::vector<std::unique_ptr<RadioSocket>> sockets;
    std::vector<Member> members;
    std::deque<Deadline> deadlines; // in order: all have the same timeout
    QElapsedTimer clock;
    QTimer timer;
    QTimer progressTimer;
    quint64 limit = 0; // registrations in all
    quint32 underWay = 0;
    qint64 deregisteringSince = -1; // ns since the start
    bool held = false;              // registrations are due and wait for an acknowledgement
    bool failed = false;
    bool interrupted = false;
};

} // namespace RadioTool
