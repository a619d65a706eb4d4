// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/eventlog.h"

#include "service/linux/errors.h"
#include "service/linux/eventsink.h"

#include <QDateTime>
#include <QString>

namespace Linux {

namespace {

struct EventSource
{
    QString name;
};

} // namespace

Scm::Handle registerEventSource(const Scm::Char *, const Scm::Char *source)
{
    return new EventSource{Scm::toString(source)};
}

Scm::Bool reportEvent(Scm::Handle log, Scm::Word type, Scm::Word category, Scm::Dword id, void *,
                      Scm::Word stringCount, Scm::Dword dataSize, const Scm::Char **strings, void *data)
{
    if (!log) {
        return fail(ErrorInvalidHandle);
    }
    EventRecord record;
    record.time = QDateTime::currentDateTimeUtc();
    record.source = static_cast<EventSource *>(log)->name;
    record.type = type;
    record.id = id;
    record.category = category;
    record.message = stringCount > 0 ? Scm::toString(strings[0]) : QString();
    record.data = QByteArray(static_cast<const char *>(data), static_cast<qsizetype>(dataSize));
    return writeEvent(record) ? 1 : 0;
}

Scm::Bool deregisterEventSource(Scm::Handle log)
{
    if (!log) {
        return fail(ErrorInvalidHandle);
    }
    delete static_cast<EventSource *>(log);
    return 1;
}

} // namespace Linux
