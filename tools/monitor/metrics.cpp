// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/metrics.h"

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

class Text
{
public:
    // What follows belongs to this metric.
    void metric(const char *newName, const char *type, const char *help)
    {
        name = newName;
        text += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    }
    // labels: without braces; empty: none.
    void value(const QByteArray &labels, const QByteArray &number)
    {
        text +=
            name + (labels.isEmpty() ? QByteArray() : QByteArray('{' + labels + '}')) + ' ' + number + '\n';
    }
    void value(const QByteArray &labels, qint64 number) { value(labels, QByteArray::number(number)); }

    QByteArray text;

private:
    QByteArray name;
};

QByteArray seconds(qint64 milliseconds)
{
    return QByteArray::number(double(milliseconds) / 1000, 'f', 3);
}

QByteArray label(const Server &server)
{
    return "server=\"" + server.name.toLatin1() + '"';
}

QByteArray label(const Server &server, const char *name, const QByteArray &value)
{
    return label(server) + ',' + name + "=\"" + value + '"';
}

// These are told also where there is none: a series that comes and goes breaks rates and alerts.
bool isUsual(size_t kind)
{
    return kind <= QMR::Registered || kind == RadioState::PendingState;
}

} // namespace

QByteArray metricsText(const Observed &observed, const QString &version, size_t streams, qint64 now)
{
    Text text;
    const auto &servers = observed.table.servers();

    text.metric("quillmere_connected", "gauge", "Whether the monitor is connected to the server.");
    for (const Server &server : servers) {
        text.value(label(server), server.isConnected ? 1 : 0);
    }
    text.metric("quillmere_radios", "gauge",
                "Radios by state; those awaiting confirmation are pending and nothing else.");
    for (const Server &server : servers) {
        for (size_t kind = 0; kind < server.byState.size(); ++kind) {
            const bool canBe = kind != QMR::Deregistered && (isUsual(kind) || server.byState[kind] > 0);
            if (canBe) {
                text.value(label(server, "state", stateName(static_cast<int>(kind)).toLatin1()),
                           server.byState[kind]);
            }
        }
    }
    text.metric("quillmere_service_radios", "gauge", "Radios by the service that they offer.");
    for (const Server &server : servers) {
        for (size_t code = 0; code < server.byService.size(); ++code) {
            if (server.byService[code] > 0) {
                text.value(label(server, "service", QByteArray::number(code)), server.byService[code]);
            }
        }
    }
    text.metric("quillmere_notices_total", "counter",
                "Notices by the state that they told, without those of the table at a connection's begin.");
    for (const Server &server : servers) {
        for (size_t kind = 0; kind < server.notices.size(); ++kind) {
            if (isUsual(kind) || server.notices[kind] > 0) {
                text.value(label(server, "state", stateName(static_cast<int>(kind)).toLatin1()),
                           static_cast<qint64>(server.notices[kind]));
            }
        }
    }
    text.metric("quillmere_last_change_age_seconds", "gauge", "Time since the last notice of a change.");
    for (const Server &server : servers) {
        if (server.changed > 0) {
            text.value(label(server), seconds(std::max<qint64>(now - server.changed, 0)));
        }
    }
    text.metric("quillmere_snapshot_radios", "gauge",
                "Radios in the table that the server told last as a whole.");
    for (const Server &server : servers) {
        if (server.snapshot >= 0) {
            text.value(label(server), server.snapshot);
        }
    }
    text.metric("quillmere_reconnects_total", "counter", "Connections to the server after the first one.");
    for (const Server &server : servers) {
        text.value(label(server), std::max(server.connections - 1, 0));
    }
    text.metric("quillmere_monitor_streams", "gauge", "Browsers and others that follow /api/events.");
    text.value({}, static_cast<qint64>(streams));
    text.metric("quillmere_monitor_start_time_seconds", "gauge",
                "When the monitor started, in seconds since 1970.");
    text.value({}, seconds(observed.started));
    text.metric("quillmere_monitor_build_info", "gauge", "1, with the monitor's version.");
    text.value("version=\"" + version.toLatin1() + '"', 1);
    return text.text;
}

} // namespace Monitor
