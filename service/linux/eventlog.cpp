// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/eventlog.h"

#include "service/linux/errors.h"
#include "service/linux/systemlog.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>

namespace Linux {

namespace {

constexpr int ErrorOutputPatience = 1000; // ms

struct EventSource
{
    QString name;
};

// A text with nothing to escape, as nearly all are, stands for itself. Qt writes JSON strings only inside a
// document, so the quoted text is taken out of an array of one.
QByteArray jsonString(const QString &text)
{
    const bool plain = std::all_of(text.begin(), text.end(), [](QChar character) {
        return character >= u' ' && character <= u'~' && character != u'"' && character != u'\\';
    });
    return plain ? '"' + text.toLatin1() + '"'
                 : QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact).chopped(1).sliced(1);
}

// Qt forms the text of a time slowly; that of a whole second serves all records of the second.
QByteArray timeText(const QDateTime &time)
{
    thread_local qint64 knownSecond = -1;
    thread_local QByteArray knownText;
    const qint64 milliseconds = time.toMSecsSinceEpoch();
    if (milliseconds / 1000 != knownSecond) {
        knownSecond = milliseconds / 1000;
        knownText = time.toUTC().toString(Qt::ISODate).chopped(1).toLatin1();
    }
    return knownText + '.' + QByteArray::number(1000 + milliseconds % 1000).sliced(1) + 'Z';
}

// The file that records are appended to, kept open for as long as its path leads to it: it may be renamed or
// removed at any time, and is then made anew. What is no file is opened for each record: a pipe that is kept
// and has lost its reader would end the process with a signal.
class RecordFile
{
public:
    bool append(const QByteArray &wantedPath, const QByteArray &line)
    {
        const std::lock_guard lock(mutex);
        return isOpen(wantedPath) && writeAll(descriptor, line);
    }

private:
    bool isOpen(const QByteArray &wantedPath)
    {
        struct stat found = {};
        if (descriptor >= 0 && S_ISREG(opened.st_mode) && path == wantedPath &&
            ::stat(path.constData(), &found) == 0 && found.st_dev == opened.st_dev &&
            found.st_ino == opened.st_ino) {
            return true;
        }
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        path = wantedPath;
        // Not blocking: a pipe that nobody reads loses its records, it does not hold the server.
        descriptor = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0640);
        return descriptor >= 0 && ::fstat(descriptor, &opened) == 0;
    }

    std::mutex mutex;
    QByteArray path;
    int descriptor = -1;
    struct stat opened = {};
};

} // namespace

const char *typeName(Scm::Word type)
{
    switch (type) {
    case Scm::EventError:
        return "error";
    case Scm::EventWarning:
        return "warning";
    case Scm::EventInformation:
        return "information";
    default:
        return "success";
    }
}

// Whoever reads the error output and falls behind is waited for once, then not until it has read.
bool errorOutputTakesMore()
{
    static std::atomic patience = ErrorOutputPatience;
    pollfd output = {STDERR_FILENO, POLLOUT, 0};
    const bool takesMore = ::poll(&output, 1, patience) > 0;
    patience = takesMore ? ErrorOutputPatience : 0;
    return takesMore;
}

bool writeAll(int descriptor, QByteArray bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t written = ::write(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return false;
        }
        bytes.remove(0, written);
    }
    return true;
}

QByteArray jsonLine(const EventRecord &record)
{
    QByteArray line = R"({"time":)" + QByteArray("\"") + timeText(record.time) + R"(","source":)" +
                      jsonString(record.source) + R"(,"type":")" + typeName(record.type) + R"(","id":)" +
                      QByteArray::number(record.id) + R"(,"category":)" +
                      QByteArray::number(record.category) + R"(,"message":)" + jsonString(record.message);
    if (!record.data.isEmpty()) {
        line += R"(,"data":")" + record.data.toBase64() + '"';
    }
    return line + "}\n";
}

bool writeEvent(const EventRecord &record)
{
    const QByteArray sink = qgetenv("QUILLMERE_EVENTLOG");
    if (sink == "stderr") {
        return errorOutputTakesMore() && writeAll(STDERR_FILENO, jsonLine(record));
    }
    if (!sink.isEmpty()) {
        static RecordFile file;
        return file.append(sink, jsonLine(record));
    }
    static SystemLog &systemLog = *new SystemLog(logPlaces()); // never destroyed: threads may log to the last
    return systemLog.write(record);
}

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
