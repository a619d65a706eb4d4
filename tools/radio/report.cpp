// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/report.h"

#include <QJsonArray>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace RadioTool {

namespace {

QString seconds(qint64 milliseconds)
{
    return QString::number(static_cast<double>(milliseconds) / 1000, 'f', 2);
}

double toMilliseconds(quint64 microseconds)
{
    return static_cast<double>(microseconds) / 1000;
}

QString latency(quint64 microseconds)
{
    return QString::number(toMilliseconds(microseconds), 'f', 2) + u" ms";
}

QString whose(const QMR::Esn &esn)
{
    return esn.isZero() ? u" without an ESN"_s : u" of "_s + esn.text();
}

} // namespace

void Report::registrationSent(const Identity &radio, const Console::Endpoint &from,
                              const Console::Endpoint &server) const
{
    QStringList codes;
    QJsonArray services;
    for (const quint32 service : radio.services) {
        codes.append(QString::number(service));
        services.append(static_cast<int>(service));
    }
    const QString suid = radio.basic ? QString() : Console::suidText(radio.suid);
    const QString kind = radio.basic     ? u"basic registration"_s
                         : radio.pending ? u"pending registration"_s
                                         : u"registration"_s;
    QJsonObject details{{u"esn"_s, radio.esn.text()}, {u"protocol"_s, radio.protocolVersion},
                        {u"basic"_s, radio.basic},    {u"pending"_s, radio.pending},
                        {u"services"_s, services},    {u"from"_s, from.text()},
                        {u"server"_s, server.text()}};
    if (!radio.basic) {
        details.insert(u"suid"_s, suid);
    }
    write(u"sent: %1%2%3, services %4, from %5 to %6"_s.arg(
              kind, whose(radio.esn), suid.isEmpty() ? QString() : u" with SUID "_s + suid,
              codes.isEmpty() ? u"none"_s : codes.join(u','), from.text(), server.text()),
          u"registration"_s, details);
}

void Report::deregistrationSent(const QMR::Esn &esn, const Console::Endpoint &from,
                                const Console::Endpoint &server) const
{
    write(u"sent: deregistration of %1, from %2 to %3 (the server answers none)"_s.arg(
              esn.isZero() ? u"the radio at this address"_s : esn.text(), from.text(), server.text()),
          u"deregistration"_s,
          {{u"esn"_s, esn.text()}, {u"from"_s, from.text()}, {u"server"_s, server.text()}});
}

void Report::acknowledged(const QMR::Qmrs::ServerMessage &message, const Console::Endpoint &sender,
                          qint64 nanoseconds) const
{
    const quint64 microseconds = static_cast<quint64>(nanoseconds) / 1000;
    write(u"received: acknowledgement for %1, protocol %2, from %3 after %4"_s.arg(message.esn.text())
              .arg(message.protocolVersion)
              .arg(sender.text(), latency(microseconds)),
          u"acknowledgement"_s,
          {{u"esn"_s, message.esn.text()},
           {u"protocol"_s, message.protocolVersion},
           {u"from"_s, sender.text()},
           {u"latencyMs"_s, toMilliseconds(microseconds)}});
}

void Report::lost(const QMR::Esn &esn, int timeout) const
{
    write(u"lost: no acknowledgement for %1 within %2 ms"_s.arg(esn.text()).arg(timeout), u"lost"_s,
          {{u"esn"_s, esn.text()}, {u"timeoutMs"_s, timeout}});
}

void Report::listening(const Console::Endpoint &at) const
{
    write(u"listening: %1"_s.arg(at.text()), u"listening"_s, {{u"at"_s, at.text()}});
}

void Report::received(const QMR::Qmrs::ServerMessage &message, const QByteArray &datagram,
                      const Console::Endpoint &sender) const
{
    using Kind = QMR::Qmrs::ServerMessage::Kind;
    if (message.kind == Kind::Invalid) {
        const QString bytes = QString::fromLatin1(datagram.toHex());
        write(u"received: %1 bytes from %2 that no server sends: %3"_s.arg(datagram.size())
                  .arg(sender.text(), bytes),
              u"unexpected"_s, {{u"from"_s, sender.text()}, {u"bytes"_s, bytes}});
        return;
    }
    const bool discovery = message.kind == Kind::DiscoveryRequest;
    write(u"received: %1 for %2, protocol %3, from %4"_s
              .arg(discovery ? u"discovery request"_s : u"acknowledgement nobody waits for"_s,
                   message.esn.text())
              .arg(message.protocolVersion)
              .arg(sender.text()),
          discovery ? u"discoveryRequest"_s : u"lateAcknowledgement"_s,
          {{u"esn"_s, message.esn.text()},
           {u"protocol"_s, message.protocolVersion},
           {u"from"_s, sender.text()}});
}

void Report::summary(const Statistics &statistics) const
{
    const quint64 p50 = statistics.percentile(50);
    const quint64 p90 = statistics.percentile(90);
    const quint64 p99 = statistics.percentile(99);
    const auto number = [](quint64 value) { return static_cast<qint64>(value); };
    QJsonValue latencies; // null when there is none
    QString text = u"summary: sent %1, acknowledged %2, lost %3"_s.arg(statistics.sent)
                       .arg(statistics.acknowledged())
                       .arg(statistics.lost);
    const auto extra = [&text](quint64 value, const QString &name) {
        if (value > 0) {
            text += u", %1 %2"_s.arg(name).arg(value);
        }
    };
    extra(statistics.repeated, u"repeated"_s);
    extra(statistics.late, u"late"_s);
    extra(statistics.unexpected, u"unexpected"_s);
    extra(statistics.discoveries, u"discovery requests"_s);
    extra(statistics.deregistered, u"deregistrations sent"_s);
    if (statistics.sent > 1) {
        text += u", in %1 s (%2 acknowledged a second)"_s.arg(
            seconds(statistics.elapsed), QString::number(statistics.acknowledgedPerSecond(), 'f', 0));
    }
    if (statistics.acknowledged() > 0) {
        text += u"\nlatency: p50 %1, p90 %2, p99 %3, max %4"_s.arg(latency(p50), latency(p90), latency(p99),
                                                                   latency(statistics.maximum()));
        latencies = QJsonObject{{u"p50"_s, toMilliseconds(p50)},
                                {u"p90"_s, toMilliseconds(p90)},
                                {u"p99"_s, toMilliseconds(p99)},
                                {u"max"_s, toMilliseconds(statistics.maximum())}};
    }
    write(text, u"summary"_s,
          {{u"sent"_s, number(statistics.sent)},
           {u"acknowledged"_s, number(statistics.acknowledged())},
           {u"lost"_s, number(statistics.lost)},
           {u"repeated"_s, number(statistics.repeated)},
           {u"late"_s, number(statistics.late)},
           {u"unexpected"_s, number(statistics.unexpected)},
           {u"discoveryRequests"_s, number(statistics.discoveries)},
           {u"deregistrations"_s, number(statistics.deregistered)},
           {u"seconds"_s, static_cast<double>(statistics.elapsed) / 1000},
           {u"acknowledgedPerSecond"_s, statistics.acknowledgedPerSecond()},
           {u"latencyMs"_s, latencies}});
}

QString Report::progress(const Statistics &statistics)
{
    return u"%1 s: sent %2, acknowledged %3, lost %4"_s.arg(seconds(statistics.elapsed))
        .arg(statistics.sent)
        .arg(statistics.acknowledged())
        .arg(statistics.lost);
}

void Report::write(const QString &line, const QString &event, QJsonObject details) const
{
    if (json) {
        details.insert(u"event"_s, event);
        Console::writeJson(details);
    } else {
        Console::writeLine(line);
    }
}

} // namespace RadioTool
