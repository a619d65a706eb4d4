// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/events.h"

#include "tools/follow/format.h"

#include <QDateTime>

#include <utility>

using namespace Qt::StringLiterals;

namespace WatchTool {

Events::Events(Write newWriter) : writer(std::move(newWriter))
{
    snapshot.onEnd = [this](qint64 radios) { write(u"snapshot"_s, {{u"radios"_s, radios}}); };
}

void Events::connected(const QString &server)
{
    isConnected = true;
    snapshot.begin();
    write(u"connected"_s, {{u"server"_s, server}});
}

void Events::noticed(const QMR::Qmra::RadioNotice &notice)
{
    snapshot.takes(notice.esn); // tells of its end before the notice that shows it
    write(u"radio"_s, Follow::noticeObject(notice));
}

void Events::disconnected(const QString &reason)
{
    if (!isConnected) {
        return;
    }
    isConnected = false;
    snapshot.abandon();
    write(u"disconnected"_s, {{u"reason"_s, reason}});
}

void Events::write(const QString &event, QJsonObject object) const
{
    object[u"time"_s] = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
    object[u"event"_s] = event;
    writer(object);
}

} // namespace WatchTool
