// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/table.h"

#include "tools/follow/format.h"

#include <algorithm>

namespace Monitor {

namespace {

RadioState stateOf(const QMR::Qmra::RadioNotice &notice, const QByteArray &former, qint64 now)
{
    QByteArray services(reinterpret_cast<const char *>(notice.services.constData()), notice.services.size());
    if (services == former) {
        services = former; // one copy for both
    }
    return {now, services, notice.address, notice.suid, notice.availability, notice.pending};
}

} // namespace

bool RadioState::isLike(const QMR::Qmra::RadioNotice &notice) const
{
    return notice.address == address && notice.suid == suid && notice.availability == availability &&
           notice.pending == pending &&
           std::equal(services.begin(), services.end(), notice.services.begin(), notice.services.end(),
                      [](char a, quint8 b) { return static_cast<quint8>(a) == b; });
}

QString stateName(int kind)
{
    return Follow::stateName(static_cast<quint8>(kind), kind == RadioState::PendingState);
}

Table::Table(const QStringList &servers)
    : allServers(static_cast<size_t>(servers.size())), radios(static_cast<size_t>(servers.size()))
{
    for (qsizetype i = 0; i < servers.size(); ++i) {
        allServers[static_cast<size_t>(i)].name = servers[i];
    }
}

void Table::connected(int index, qint64 now)
{
    Server &server = allServers[static_cast<size_t>(index)];
    server.isConnected = true;
    server.since = now;
    server.reason.clear();
    ++server.connections;
}

void Table::disconnected(int index, const QString &reason, qint64 now)
{
    Server &server = allServers[static_cast<size_t>(index)];
    if (server.isConnected) {
        server.isConnected = false;
        server.since = now;
    }
    server.reason = reason;
}

void Table::noticed(int index, const QMR::Qmra::RadioNotice &notice, bool inSnapshot, qint64 now)
{
    Server &server = allServers[static_cast<size_t>(index)];
    const auto [found, isNew] = radios[static_cast<size_t>(index)].try_emplace(notice.esn);
    Radio &radio = found->second;
    if (isNew) {
        radio.esn = notice.esn;
        radio.server = index;
    }
    radio.connection = server.connections;
    if (isNew || !radio.now().isLike(notice)) {
        // Not known until now, and not new to the server: nobody knows since when it is what it is.
        radio.changed = !(isNew && inSnapshot);
        change(radio, notice, now);
    }
    if (!inSnapshot) {
        server.changed = now;
        ++server
              .notices[static_cast<size_t>(notice.pending ? RadioState::PendingState : notice.availability)];
    }
}

void Table::snapshotEnded(int index, qint64 count)
{
    allServers[static_cast<size_t>(index)].snapshot = count;
}

void Table::dropUntold(int index, qint64 now)
{
    const Server &server = allServers[static_cast<size_t>(index)];
    for (auto &[esn, radio] : radios[static_cast<size_t>(index)]) {
        if (radio.connection != server.connections && !radio.now().isGone()) {
            radio.changed = true;
            // Forgets others at most, never the radio whose turn it is: its change is the newest.
            change(radio, {esn, radio.now().suid, false, 0, QMR::Deregistered, {}}, now);
        }
    }
}

qint64 Table::size() const
{
    qint64 count = 0;
    for (const Server &server : allServers) {
        count += server.radios;
    }
    return count;
}

const Radio *Table::changedAfter(quint64 order) const
{
    const auto next = byOrder.upper_bound(order);
    return next == byOrder.end() ? nullptr : next->second;
}

void Table::change(Radio &radio, const QMR::Qmra::RadioNotice &notice, qint64 now)
{
    if (!radio.states.empty()) {
        count(radio, -1);
        byOrder.erase(radio.order);
        goneOrders.erase(radio.order);
    }
    if (radio.states.size() == Radio::LongestHistory) {
        radio.states.erase(radio.states.begin());
    }
    radio.states.push_back(stateOf(notice, radio.states.empty() ? QByteArray() : radio.now().services, now));
    radio.order = ++newestOrder;
    byOrder.emplace(radio.order, &radio);
    count(radio, 1);
    if (radio.now().isGone()) {
        goneOrders.insert(radio.order);
        forgetBeyondMemory();
    }
}

void Table::forgetBeyondMemory()
{
    if (goneOrders.size() <= LongestMemory) {
        return;
    }
    newestForgotten = *goneOrders.begin();
    goneOrders.erase(goneOrders.begin());
    const auto forgotten = byOrder.find(newestForgotten);
    const Radio *radio = forgotten->second;
    byOrder.erase(forgotten);
    radios[static_cast<size_t>(radio->server)].erase(QMR::Esn(radio->esn));
}

void Table::count(const Radio &radio, qint64 by)
{
    const RadioState &state = radio.now();
    if (state.isGone()) {
        return;
    }
    Server &server = allServers[static_cast<size_t>(radio.server)];
    server.radios += by;
    server.byState[static_cast<size_t>(state.kind())] += by;
    std::array<bool, 256> offered{}; // a radio may name a service twice
    for (const char code : state.services) {
        offered[static_cast<quint8>(code)] = true;
    }
    for (size_t code = 0; code < offered.size(); ++code) {
        server.byService[code] += offered[code] ? by : 0;
    }
}

} // namespace Monitor
