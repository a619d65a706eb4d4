// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What a program reads that follows a server: objects from which it can keep a table, now or out of a file.
#pragma once

#include "apps/qmra.h"
#include "tools/follow/snapshot.h"

#include <QJsonObject>
#include <QString>

#include <functional>

namespace WatchTool {

// Each object has "time" (UTC, with milliseconds) and "event":
//   connected     "server"; the table begins anew, empty
//   radio         the keys of noticeObject
//   snapshot      "radios"; so many have been told since "connected", and they were all that the server had
//   disconnected  "reason"; what the table holds may be old from here on
class Events
{
public:
    using Write = std::function<void(const QJsonObject &)>;

    explicit Events(Write write);
    Q_DISABLE_COPY_MOVE(Events)

    void connected(const QString &server);
    void noticed(const QMR::Qmra::RadioNotice &notice);
    // Does nothing where there was no connection.
    void disconnected(const QString &reason);

private:
    void write(const QString &event, QJsonObject object) const;

    Write writer;
    bool isConnected = false;
    Follow::Snapshot snapshot;
};

} // namespace WatchTool
