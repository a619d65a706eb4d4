// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/watch.h"

#include "tools/follow/format.h"
#include "tools/watch/screen.h"

#include <QCoreApplication>

#include <limits>

using namespace Qt::StringLiterals;

namespace WatchTool {

Watch::Watch(const Settings &newSettings)
    : settings(newSettings), connection(newSettings.server), events(Console::writeJson)
{
    connection.onConnected = [this] { connected(); };
    connection.onNotice = [this](const auto &notice) { noticed(notice); };
    connection.onLost = [this](const QString &reason, qint64 pause) { lost(reason, pause); };
    duration.setSingleShot(true);
    QObject::connect(&duration, &QTimer::timeout, &duration, [this] { timeIsOver(); });
    snapshot.onEnd = [this](qint64) { table.endSnapshot(); };
    snapshot.onCertain = [this] { table.dropUntold(); };
}

void Watch::start()
{
    clock.start();
    if (settings.output == Output::Table && Screen::isUsable()) {
        live = std::make_unique<LiveTable>(table, clock);
        live->onQuit = [this] { interrupt(); };
        live->onOutputLost = [this] { finish(Console::ExitError); };
    }
    if (settings.duration > 0) {
        duration.start(
            static_cast<int>(std::min<qint64>(settings.duration, std::numeric_limits<int>::max())));
    }
    status(u"connecting to %1"_s.arg(settings.server.text()));
    connection.open();
}

void Watch::interrupt()
{
    finish(Console::ExitSuccess);
}

void Watch::connected()
{
    wasConnected = true;
    table.beginSnapshot(); // the server tells all of it again
    snapshot.begin();
    status(u"connected to %1"_s.arg(settings.server.text()));
    if (settings.report) {
        connection.send(
            QMR::Qmra::encodeReport({settings.report->esn, settings.report->address.toIPv4Address()}));
    } else if (settings.output == Output::Json) {
        events.connected(settings.server.text());
    }
}

void Watch::noticed(const QMR::Qmra::RadioNotice &notice)
{
    if (settings.report) {
        if (notice.esn != settings.report->esn || notice.pending || notice.availability != QMR::Unconfirmed ||
            notice.address != settings.report->address.toIPv4Address()) {
            return;
        }
    }
    ++notices;
    switch (settings.output) {
    case Output::Lines:
        Console::writeLine(Follow::noticeLine(notice));
        break;
    case Output::Json:
        events.noticed(notice);
        break;
    case Output::Table:
        snapshot.takes(notice.esn); // tells of its end before the notice that shows it
        table.apply(notice, clock.elapsed());
        break;
    }
    if (settings.report || (settings.count > 0 && notices == settings.count)) {
        finish(Console::ExitSuccess);
    }
}

void Watch::lost(const QString &reason, qint64 pause)
{
    events.disconnected(reason);
    snapshot.abandon();
    status(u"%1: %2; trying again in %3 s"_s.arg(settings.server.text(), reason).arg(double(pause) / 1000),
           wasConnected);
}

void Watch::timeIsOver()
{
    if (!wasConnected) {
        finish(Console::ExitError);
    } else {
        finish(settings.count > 0 || settings.report ? ExitIncomplete : Console::ExitSuccess);
    }
}

void Watch::status(const QString &text, bool isOld)
{
    if (live) {
        live->setStatus(text, isOld);
    } else {
        Console::writeError(text);
    }
}

void Watch::finish(int exitCode)
{
    if (finished) {
        return;
    }
    finished = true;
    connection.stop();
    live.reset();
    if (settings.output == Output::Table) {
        for (const QString &line : plainLines(table)) {
            Console::writeLine(line);
        }
    }
    QCoreApplication::exit(exitCode);
}

} // namespace WatchTool
