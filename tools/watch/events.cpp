// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/events.h"

#include "tools/watch/format.h"

#include <QDateTime>

#include <utility>

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

// The server tells its radios without a pause, and puts no mark behind the last.
constexpr int PauseAfterSnapshot = 500; // ms

} // namespace

Events::Events(Write newWriter) : writer(std::move(newWriter))
{
    quiet.setSingleShot(true);
    quiet.setInterval(PauseAfterSnapshot);
    QObject::connect(&quiet, &QTimer::timeout, &quiet, [this] { endSnapshot(); });
}

void Events::connected(const QString &server)
{
    isConnected = true;
    radios = 0;
    lastOfSnapshot.reset();
    quiet.start();
    write(u"connected"_s, {{u"server"_s, server}});
}

void Events::noticed(const QMR::Qmra::RadioNotice &notice)
{
    if (quiet.isActive()) {
        // It tells them in the order of their ESNs: what comes out of order is a change.
        if (lastOfSnapshot && !(*lastOfSnapshot < notice.esn)) {
            endSnapshot();
        } else {
            lastOfSnapshot = notice.esn;
            ++radios;
            quiet.start();
        }
    }
    write(u"radio"_s, noticeObject(notice));
}

void Events::disconnected(const QString &reason)
{
    if (!isConnected) {
        return;
    }
    isConnected = false;
    quiet.stop();
    write(u"disconnected"_s, {{u"reason"_s, reason}});
}

void Events::write(const QString &event, QJsonObject object) const
{
    object[u"time"_s] = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
    object[u"event"_s] = event;
    writer(object);
}

void Events::endSnapshot()
{
    quiet.stop();
    write(u"snapshot"_s, {{u"radios"_s, radios}});
}

} // namespace WatchTool
