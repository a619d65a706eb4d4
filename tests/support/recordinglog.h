// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/scm.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

// An event-log record as the operating system would have been given it.
struct LogRecord
{
    QString source;
    Scm::Word type = 0;
    Scm::Word category = 0;
    Scm::Dword id = 0;
    QString message;
    QByteArray data;

    bool operator==(const LogRecord &) const = default;
};

char *toString(const LogRecord &record); // what QCOMPARE prints

// Stands in for the operating system's event log while it lives, and keeps what is written there.
class RecordingLog
{
public:
    static constexpr Scm::Dword Id = 0xC0000001;

    RecordingLog();
    ~RecordingLog();
    Q_DISABLE_COPY_MOVE(RecordingLog)

    const QList<LogRecord> &records() const;
    // What has been written since the last take, and forgets it.
    QList<LogRecord> take();
    QStringList takeMessages();
    // The messages of the errors alone; what else there was is forgotten too.
    QStringList takeErrors();
    // Waits until there are that many, and takes them; fewer when they did not come in time.
    QList<LogRecord> takeOnce(qsizetype recordCount);
    QStringList takeMessagesOnce(qsizetype recordCount);
    qsizetype count(const QString &message) const;
    // Is called in the middle of the server's work, at each record, until another is given: what it finds
    // then is what had been done by then.
    void whenWritten(std::function<void(const LogRecord &)> observer);

    // A record of the server's own, with no data.
    static LogRecord record(Scm::EventType type, const QString &message, Scm::Dword id = Id);

private:
    Scm::Functions saved;
};
