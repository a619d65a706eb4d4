// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/json.h"

#include "tools/follow/format.h"

#include <QDateTime>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <charconv>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

void appendNumber(QByteArray &text, qint64 number, int base = 10, int width = 0)
{
    std::array<char, 24> digits{};
    auto *const end = std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
    text.append(std::max<qsizetype>(width - (end - digits.data()), 0), '0');
    std::transform(digits.data(), end, digits.data(),
                   [](char c) { return c >= 'a' ? static_cast<char>(c - 32) : c; });
    text.append(digits.data(), end - digits.data());
}

void appendEsn(QByteArray &text, const QMR::Esn &esn)
{
    for (const quint8 byte : esn.bytes) {
        appendNumber(text, byte, 16, 2);
    }
}

void appendAddress(QByteArray &text, quint32 address)
{
    if (address == 0) {
        text += "null";
        return;
    }
    text += '"';
    for (int shift = 24; shift >= 0; shift -= 8) {
        appendNumber(text, (address >> shift) & 0xFF);
        text += shift > 0 ? '.' : '"';
    }
}

void appendTime(QByteArray &text, qint64 time)
{
    text += '"' + timeText(time).toLatin1() + '"';
}

// What is known of a radio by its state: wacn to services, without braces.
void appendState(QByteArray &text, const RadioState &state)
{
    text += R"("wacn":")";
    appendNumber(text, state.suid.wacn(), 16, 5);
    text += R"(","system":")";
    appendNumber(text, state.suid.system(), 16, 3);
    text += R"(","unit":")";
    appendNumber(text, state.suid.unit(), 16, 6);
    text += R"(","address":)";
    appendAddress(text, state.address);
    text += R"(,"state":")" + stateName(state.kind()).toLatin1() + R"(","availability":)";
    appendNumber(text, state.availability);
    text += state.pending ? R"(,"pending":true,"services":[)" : R"(,"pending":false,"services":[)";
    for (qsizetype i = 0; i < state.services.size(); ++i) {
        text += i > 0 ? "," : "";
        appendNumber(text, static_cast<quint8>(state.services[i]));
    }
    text += ']';
}

// The name has been read as a host's name or an address, and a port: nothing in it needs to be quoted.
void appendServer(QByteArray &text, const Table &table, int server)
{
    text += R"("server":")" + table.servers()[static_cast<size_t>(server)].name.toLatin1() + '"';
}

QJsonValue timeValue(qint64 time)
{
    return time == 0 ? QJsonValue() : QJsonValue(timeText(time));
}

QJsonObject counts(const Activity::Counts &counts)
{
    const auto array = [](const std::vector<quint32> &numbers) {
        QJsonArray result;
        for (const quint32 number : numbers) {
            result.append(static_cast<qint64>(number));
        }
        return result;
    };
    return {{u"registrations"_s, array(counts.registrations)}, {u"changes"_s, array(counts.changes)}};
}

} // namespace

QString timeText(qint64 time)
{
    return QDateTime::fromMSecsSinceEpoch(time, Qt::UTC).toString(Qt::ISODateWithMs);
}

void appendRadio(QByteArray &text, const Table &table, const Radio &radio)
{
    text += R"({"esn":")";
    appendEsn(text, radio.esn);
    text += "\",";
    appendState(text, radio.now());
    text += ',';
    appendServer(text, table, radio.server);
    text += ",\"changed\":";
    if (radio.changed) {
        appendTime(text, radio.now().time);
    } else {
        text += "null";
    }
    text += '}';
}

QJsonObject statusObject(Observed &observed, const QString &version, qint64 now, qint64 steadyNow)
{
    QJsonObject states;
    QJsonObject services;
    QJsonArray servers;
    const auto add = [](QJsonObject &totals, const QString &key, qint64 count) {
        if (count > 0) {
            totals[key] = totals[key].toInteger() + count;
        }
    };
    for (const Server &server : observed.table.servers()) {
        for (size_t kind = 0; kind < server.byState.size(); ++kind) {
            add(states, stateName(static_cast<int>(kind)), server.byState[kind]);
        }
        for (size_t code = 0; code < server.byService.size(); ++code) {
            add(services, QString::number(code), server.byService[code]);
        }
        servers.append(QJsonObject{{u"server"_s, server.name},
                                   {u"connected"_s, server.isConnected},
                                   {u"since"_s, timeValue(server.since)},
                                   {u"changed"_s, timeValue(server.changed)},
                                   {u"radios"_s, server.radios},
                                   {u"reason"_s, server.isConnected || server.reason.isEmpty()
                                                     ? QJsonValue()
                                                     : QJsonValue(server.reason)}});
    }
    return {{u"time"_s, timeText(now)},
            {u"started"_s, timeText(observed.started)},
            {u"version"_s, version},
            {u"radios"_s, observed.table.size()},
            {u"states"_s, states},
            {u"services"_s, services},
            {u"registrations"_s, static_cast<qint64>(observed.activity.lastRegistrations(steadyNow))},
            {u"changes"_s, static_cast<qint64>(observed.activity.lastChanges(steadyNow))},
            {u"servers"_s, servers}};
}

QJsonObject ratesObject(Activity &activity, qint64 now, qint64 steadyNow)
{
    return {{u"time"_s, timeText(now)},
            {u"seconds"_s, counts(activity.seconds(steadyNow))},
            {u"minutes"_s, counts(activity.minutes(steadyNow))}};
}

QByteArray radioText(const Table &table, const QMR::Esn &esn)
{
    QByteArray radios;
    QByteArray history;
    for (int server = 0; server < static_cast<int>(table.servers().size()); ++server) {
        const auto &all = table.radiosOf(server);
        const auto found = all.find(esn);
        if (found == all.end()) {
            continue;
        }
        radios += radios.isEmpty() ? "" : ",";
        appendRadio(radios, table, found->second);
        for (const RadioState &state : found->second.states) {
            history += history.isEmpty() ? "{\"time\":" : ",{\"time\":";
            appendTime(history, state.time);
            history += ',';
            appendServer(history, table, server);
            history += ',';
            appendState(history, state);
            history += '}';
        }
    }
    return radios.isEmpty() ? QByteArray() : "{\"radios\":[" + radios + "],\"history\":[" + history + "]}\n";
}

} // namespace Monitor
