// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/monitor.h"

#include "tools/monitor/json.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

constexpr int TellPeriod = 100;    // ms
constexpr int StatusPeriod = 1000; // ms

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

QElapsedTimer started()
{
    QElapsedTimer timer;
    timer.start();
    return timer;
}

QStringList namesOf(const QList<Console::Endpoint> &servers)
{
    QStringList names;
    for (const Console::Endpoint &server : servers) {
        names.append(server.text());
    }
    return names;
}

} // namespace

Monitor::Monitor(const Settings &newSettings, Access access)
    : settings(newSettings),
      steady(started()),
      observed(namesOf(newSettings.servers), now()),
      site(observed, std::move(access), newSettings.address.isLoopback(),
           QCoreApplication::applicationVersion(), {now, [this] { return steadyNow(); }}),
      http([this](const Request &request) { return site.answer(request); })
{
    site.streams = [this] { return http.streams(); };
    QObject::connect(&tell, &QTimer::timeout, &tell, [this] { http.tellStreams(); });
    status.setTimerType(Qt::PreciseTimer);
    QObject::connect(&status, &QTimer::timeout, &status, [this] { putStatusIntoWords(); });
}

bool Monitor::start()
{
    if (!http.listen(settings.address, settings.port)) {
        Console::writeError(u"cannot listen at %1:%2: %3"_s.arg(settings.address.toString())
                                .arg(settings.port)
                                .arg(http.error()));
        return false;
    }
    Console::writeError(u"serving at http://%1:%2/"_s.arg(settings.address.toString()).arg(port()));
    for (int i = 0; i < static_cast<int>(settings.servers.size()); ++i) {
        follow(i);
    }
    putStatusIntoWords();
    tell.start(TellPeriod);
    status.start(StatusPeriod);
    return true;
}

void Monitor::follow(int index)
{
    const Console::Endpoint server = settings.servers[index];
    Followed &it = *followed.emplace_back(std::make_unique<Followed>(server));
    it.snapshot.onEnd = [this, index](qint64 radios) { observed.table.snapshotEnded(index, radios); };
    it.snapshot.onCertain = [this, index] { observed.table.dropUntold(index, now()); };
    it.connection.onConnected = [this, index, &it, server] {
        observed.table.connected(index, now());
        it.snapshot.begin();
        putStatusIntoWords();
        Console::writeError(u"connected to "_s + server.text());
    };
    it.connection.onNotice = [this, index](const auto &notice) { noticed(index, notice); };
    it.connection.onLost = [this, index, &it, server](const QString &reason, qint64 pause) {
        it.snapshot.abandon();
        observed.table.disconnected(index, reason, now());
        putStatusIntoWords();
        Console::writeError(
            u"%1: %2; trying again in %3 s"_s.arg(server.text(), reason).arg(double(pause) / 1000));
    };
    it.connection.open();
}

void Monitor::noticed(int index, const QMR::Qmra::RadioNotice &notice)
{
    const bool inSnapshot = followed[static_cast<size_t>(index)]->snapshot.takes(notice.esn);
    observed.table.noticed(index, notice, inSnapshot, now());
    if (!inSnapshot) {
        observed.activity.changed(steadyNow());
        if (notice.availability == QMR::Registered && !notice.pending) {
            observed.activity.registered(steadyNow());
        }
    }
}

void Monitor::putStatusIntoWords()
{
    observed.status =
        QJsonDocument(statusObject(observed, QCoreApplication::applicationVersion(), now(), steadyNow()))
            .toJson(QJsonDocument::Compact);
    ++observed.statusNumber;
}

qint64 Monitor::steadyNow() const
{
    return steady.elapsed();
}

} // namespace Monitor
