// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/qmra.h"

#include <QByteArray>
#include <QStringList>

#include <array>
#include <functional>
#include <map>
#include <set>
#include <vector>

namespace Monitor {

// How a radio stood from a time on. Small: a table keeps many.
struct RadioState
{
    qint64 time = 0;     // ms since 1970, UTC
    QByteArray services; // a code a byte; shared between the states of a radio
    quint32 address = 0; // IPv4, host order; 0: none
    QMR::Suid suid;
    quint8 availability = 0;
    bool pending = false;

    bool isGone() const { return availability == QMR::Deregistered && !pending; }
    bool isLike(const QMR::Qmra::RadioNotice &notice) const;
    // What stateName() says, as a number: the availability, or PendingState.
    int kind() const { return pending ? PendingState : availability; }

    static constexpr int PendingState = 256;
    static constexpr int States = 257;
};

QString stateName(int kind);

// A radio of one server, and what became of it.
struct Radio
{
    static constexpr size_t LongestHistory = 16;

    QMR::Esn esn;
    int server = 0;       // its place among the servers
    int connection = 0;   // of the server's, counted: in which it was last told of
    bool changed = false; // since it was first heard of; or it was first heard of in a change
    quint64 order = 0;    // of its last change, among the changes of all radios
    std::vector<RadioState>
        states; // what it was first known as, or the last of LongestHistory; now: the last

    const RadioState &now() const { return states.back(); }
};

struct Server
{
    QString name;
    bool isConnected = false;
    qint64 since = 0;     // ms since 1970: of the connection, or of its loss; 0: there never was one
    qint64 changed = 0;   // the last notice that was none of a snapshot's; 0: there was none
    QString reason;       // why it is not connected
    int connections = 0;  // so far
    qint64 snapshot = -1; // radios of the last whole one; -1: there was none
    qint64 radios = 0;    // that are not gone
    std::array<qint64, RadioState::States> byState{};
    std::array<qint64, 256> byService{};
    std::array<quint64, RadioState::States> notices{}; // outside of snapshots
};

// The radios of all servers as their notices tell of them, and the order of their changes.
//
// A server that connects anew tells its whole table. Radios of the connection before stay until that table
// has come to its end, and those that were not in it are gone then. Those that are gone are remembered for
// their history: the last LongestMemory of them.
class Table
{
public:
    static constexpr size_t LongestMemory = 10000;

    explicit Table(const QStringList &servers);
    Q_DISABLE_COPY_MOVE(Table)

    // now: ms since 1970, UTC.
    void connected(int server, qint64 now);
    // inSnapshot: it tells how the radio stands, not that it has changed.
    void noticed(int server, const QMR::Qmra::RadioNotice &notice, bool inSnapshot, qint64 now);
    void snapshotEnded(int server, qint64 radios);
    // What this connection has not told of is gone.
    void dropUntold(int server, qint64 now);
    void disconnected(int server, const QString &reason, qint64 now);

    const std::vector<Server> &servers() const { return allServers; }
    qint64 size() const; // radios that are not gone
    // In ESN order, those that are gone too.
    const std::map<QMR::Esn, Radio> &radiosOf(int server) const
    {
        return radios[static_cast<size_t>(server)];
    }

    // The first radio whose last change is later than the given one; null: there is none. Orders begin
    // with 1.
    const Radio *changedAfter(quint64 order) const;
    quint64 lastOrder() const { return newestOrder; }
    // Who knows the table as of an order below this may have missed that a radio is gone.
    quint64 forgottenOrder() const { return newestForgotten; }

private:
    void change(Radio &radio, const QMR::Qmra::RadioNotice &notice, qint64 now);
    void count(const Radio &radio, qint64 by);
    void forgetBeyondMemory();

    std::vector<Server> allServers;
    std::vector<std::map<QMR::Esn, Radio>> radios; // a server each
    std::map<quint64, Radio *> byOrder;
    std::set<quint64> goneOrders; // of the radios that are gone
    quint64 newestOrder = 0;
    quint64 newestForgotten = 0;
};

} // namespace Monitor
