// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/recordinglog.h"

#include "service/platform.h"

#include <QTest>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

QList<LogRecord> &written()
{
    static QList<LogRecord> records;
    return records;
}

std::function<void(const LogRecord &)> &observed()
{
    static std::function<void(const LogRecord &)> observer;
    return observer;
}

Scm::Handle openScManager(const Scm::Char *, const Scm::Char *, Scm::Dword)
{
    return nullptr;
}

Scm::Handle registerEventSource(const Scm::Char *, const Scm::Char *source)
{
    return new QString(Scm::toString(source));
}

Scm::Bool reportEvent(Scm::Handle log, Scm::Word type, Scm::Word category, Scm::Dword id, void *,
                      Scm::Word stringCount, Scm::Dword dataSize, const Scm::Char **strings, void *data)
{
    Q_ASSERT(stringCount == 1);
    const LogRecord record{*static_cast<QString *>(log),
                           type,
                           category,
                           id,
                           Scm::toString(strings[0]),
                           QByteArray(static_cast<const char *>(data), static_cast<qsizetype>(dataSize))};
    written().append(record);
    if (observed()) {
        observed()(record);
    }
    return 1;
}

Scm::Bool deregisterEventSource(Scm::Handle log)
{
    delete static_cast<QString *>(log);
    return 1;
}

} // namespace

char *toString(const LogRecord &record)
{
    const QString text = u"%1 type %2 category %3 id 0x%4 data %5: %6"_s.arg(record.source)
                             .arg(record.type)
                             .arg(record.category)
                             .arg(record.id, 0, 16)
                             .arg(QString::fromLatin1(record.data.toHex()), record.message);
    return qstrdup(text.toUtf8().constData());
}

RecordingLog::RecordingLog() : saved(platform.scm)
{
    written().clear();
    platform.scm.openScManager = openScManager;
    platform.scm.registerEventSource = registerEventSource;
    platform.scm.reportEvent = reportEvent;
    platform.scm.deregisterEventSource = deregisterEventSource;
}

RecordingLog::~RecordingLog()
{
    platform.scm = saved;
    observed() = {};
}

const QList<LogRecord> &RecordingLog::records() const
{
    return written();
}

QList<LogRecord> RecordingLog::take()
{
    return std::exchange(written(), {});
}

QStringList RecordingLog::takeMessages()
{
    QStringList messages;
    for (const LogRecord &record : take()) {
        messages.append(record.message);
    }
    return messages;
}

QStringList RecordingLog::takeErrors()
{
    QStringList messages;
    for (const LogRecord &record : take()) {
        if (record.type == Scm::EventError) {
            messages.append(record.message);
        }
    }
    return messages;
}

QList<LogRecord> RecordingLog::takeOnce(qsizetype recordCount)
{
    (void)QTest::qWaitFor([recordCount] { return written().size() >= recordCount; });
    return take();
}

QStringList RecordingLog::takeMessagesOnce(qsizetype recordCount)
{
    (void)QTest::qWaitFor([recordCount] { return written().size() >= recordCount; });
    return takeMessages();
}

qsizetype RecordingLog::count(const QString &message) const
{
    return std::count_if(written().begin(), written().end(),
                         [&message](const LogRecord &record) { return record.message == message; });
}

void RecordingLog::whenWritten(std::function<void(const LogRecord &)> observer)
{
    observed() = std::move(observer);
}

LogRecord RecordingLog::record(Scm::EventType type, const QString &message, Scm::Dword id)
{
    return {u"Quill Mere"_s, type, 0, id, message, QByteArray()};
}
