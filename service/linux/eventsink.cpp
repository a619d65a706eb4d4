// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/eventsink.h"

#include <QJsonArray>
#include <QJsonDocument>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>

namespace Linux {

namespace {

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

int syslogPriority(Scm::Word type)
{
    switch (type) {
    case Scm::EventError:
        return LOG_ERR;
    case Scm::EventWarning:
        return LOG_WARNING;
    default:
        return LOG_INFO;
    }
}

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

// One write call for the whole line keeps the lines of several processes apart.
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

bool sendToJournal(const EventRecord &record)
{
    // sd_journal_sendv() reports success where there is no journal at all.
    if (::access("/run/systemd/journal/socket", F_OK) != 0) {
        return false;
    }
    const std::array<QByteArray, 8> fields = {
        "MESSAGE=" + record.message.toUtf8(),
        "PRIORITY=" + QByteArray::number(syslogPriority(record.type)),
        "SYSLOG_IDENTIFIER=" + record.source.toUtf8(),
        "EVENT_SOURCE=" + record.source.toUtf8(),
        QByteArray("EVENT_TYPE=") + typeName(record.type),
        "EVENT_ID=" + QByteArray::number(record.id),
        "EVENT_CATEGORY=" + QByteArray::number(record.category),
        "EVENT_DATA=" + record.data.toBase64(),
    };
    std::array<iovec, fields.size()> vector{};
    for (size_t i = 0; i < fields.size(); ++i) {
        vector[i] = {const_cast<char *>(fields[i].constData()), static_cast<size_t>(fields[i].size())};
    }
    const size_t count = record.data.isEmpty() ? vector.size() - 1 : vector.size();
    return sd_journal_sendv(vector.data(), static_cast<int>(count)) == 0;
}

bool sendToSyslog(const EventRecord &record)
{
    // openlog() keeps one identifier for the whole process.
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    const QByteArray source = record.source.toUtf8();
    ::openlog(source.constData(), LOG_NDELAY, LOG_DAEMON);
    ::syslog(syslogPriority(record.type), "%s", record.message.toUtf8().constData());
    ::closelog();
    return true;
}

} // namespace

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
        return writeAll(STDERR_FILENO, jsonLine(record));
    }
    if (!sink.isEmpty()) {
        static RecordFile file;
        return file.append(sink, jsonLine(record));
    }
    return sendToJournal(record) || sendToSyslog(record);
}

} // namespace Linux
