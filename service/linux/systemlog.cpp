// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemlog.h"

#include <QtEndian>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Linux {

namespace {

constexpr timeval LongestWait = {1, 0};
constexpr int MaximumSignals = 3; // more of them end a wait
// Ours, so that the length of the reader's queue is the bound, and not what our socket may have unread.
constexpr int SendBuffer = 1024 * 1024;
// Well below half of a socket's usual buffer: a stream takes it whole or not at all.
constexpr qsizetype MaximumStreamRecord = 65536;

int priority(Scm::Word type)
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

// The journal's native protocol: "NAME=value" and a line feed, or, for a value with line feeds, the name on a
// line of its own, the value's size as a little-endian 64-bit number, the value and a line feed.
void appendField(QByteArray &fields, const char *name, const QByteArray &value)
{
    fields += name;
    if (value.contains('\n')) {
        std::array<char, sizeof(quint64)> size{};
        qToLittleEndian(static_cast<quint64>(value.size()), size.data());
        fields += '\n';
        fields.append(size.data(), size.size());
    } else {
        fields += '=';
    }
    fields += value;
    fields += '\n';
}

QByteArray journalFields(const EventRecord &record)
{
    const QByteArray source = record.source.toUtf8();
    QByteArray fields;
    fields.reserve(256 + record.message.size() + record.data.size() * 4 / 3);
    appendField(fields, "MESSAGE", record.message.toUtf8());
    appendField(fields, "PRIORITY", QByteArray::number(priority(record.type)));
    appendField(fields, "SYSLOG_IDENTIFIER", source);
    appendField(fields, "EVENT_SOURCE", source);
    appendField(fields, "EVENT_TYPE", typeName(record.type));
    appendField(fields, "EVENT_ID", QByteArray::number(record.id));
    appendField(fields, "EVENT_CATEGORY", QByteArray::number(record.category));
    if (!record.data.isEmpty()) {
        appendField(fields, "EVENT_DATA", record.data.toBase64());
    }
    return fields;
}

// "<30>Nov  1 10:00:00 Quill Mere: text", in local time, as syslog() of the C library has it.
QByteArray syslogLine(const EventRecord &record)
{
    const QDateTime time = record.time.toLocalTime();
    return '<' + QByteArray::number(LOG_DAEMON | priority(record.type)) + '>' +
           time.toString(u"MMM").toLatin1() + QByteArray::number(time.date().day()).rightJustified(3) +
           time.toString(u" hh:mm:ss ").toLatin1() + record.source.toUtf8() + ": " + record.message.toUtf8();
}

sockaddr_un addressOf(const QByteArray &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    return address;
}

// A syslog that reads streams: a connection for each record, so that nothing of others is in its way. It is
// not waited for.
bool sendToStream(const QByteArray &path, const QByteArray &line)
{
    const QByteArray bytes = line + '\0';
    const int stream = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = addressOf(path);
    const bool isSent =
        stream >= 0 && bytes.size() <= MaximumStreamRecord &&
        ::connect(stream, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        ::send(stream, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL) == bytes.size();
    if (stream >= 0) {
        ::close(stream);
    }
    return isSent;
}

} // namespace

LogPlaces &logPlaces()
{
    static LogPlaces &places = *new LogPlaces; // as long as anybody may log
    return places;
}

SystemLog::SystemLog(const LogPlaces &where) : places(where), journal{where.journal}, syslog{where.syslog}
{
}

SystemLog::~SystemLog()
{
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

// Written by hand, since sd_journal_sendv() and syslog() wait without a limit for a reader that does not
// read, and the server with them.
bool SystemLog::write(const EventRecord &record)
{
    const QByteArray fields = journalFields(record);
    const std::lock_guard lock(mutex);
    if (descriptor < 0) {
        open();
    }
    int error = send(journal, fields);
    if (error == EMSGSIZE || error == ENOBUFS) {
        error = sendAsFile(journal, fields);
    }
    // What a journal that is there does not take is lost, deliberately: /dev/log leads to the same reader,
    // which would later get the record without its fields, and out of order.
    if (error == 0 || error == EAGAIN) {
        return error == 0;
    }
    const QByteArray line = syslogLine(record);
    error = send(syslog, line);
    return error == 0 || (error == EPROTOTYPE && sendToStream(places.syslog, line));
}

// Not connected, deliberately: each record is sent to a path, and so finds a socket that was made anew.
void SystemLog::open()
{
    descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &SendBuffer, sizeof SendBuffer);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &LongestWait, sizeof LongestWait);
}

// Sends the bytes as one datagram, or in their place the descriptor of a file that holds them. Gives 0 or the
// error; EAGAIN: the reader is there and does not read.
int SystemLog::send(Reader &reader, const QByteArray &bytes, int file)
{
    sockaddr_un address = addressOf(reader.path);
    iovec content = {const_cast<char *>(bytes.constData()), static_cast<size_t>(bytes.size())};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof file)> control{};
    msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    if (file < 0) {
        message.msg_iov = &content;
        message.msg_iovlen = 1;
    } else {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof file);
        std::memcpy(CMSG_DATA(header), &file, sizeof file);
    }
    const int error = sendPatiently(reader, message);
    if (error == 0 || error == EAGAIN) {
        reader.isWaitedFor = error == 0;
    }
    return error;
}

// What is too large for a datagram goes as a file in memory, sealed: the journal reads no file that may
// change.
int SystemLog::sendAsFile(Reader &reader, const QByteArray &bytes)
{
    const int file = ::memfd_create("quillmere-record", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0) {
        return errno;
    }
    const bool isWhole =
        writeAll(file, bytes) &&
        ::fcntl(file, F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) == 0;
    const int error = isWhole ? send(reader, {}, file) : EMSGSIZE;
    ::close(file);
    return error;
}

int SystemLog::sendPatiently(Reader &reader, const msghdr &message)
{
    int error = transmit(message, MSG_DONTWAIT);
    if (error != EAGAIN || !reader.isWaitedFor) {
        return error;
    }
    error = EINTR;
    for (int signal = 0; error == EINTR && signal < MaximumSignals; ++signal) {
        error = transmit(message, 0); // the socket's time-out ends it
    }
    return error == EINTR ? EAGAIN : error;
}

int SystemLog::transmit(const msghdr &message, int flags)
{
    return places.sendMessage(descriptor, &message, flags | MSG_NOSIGNAL) < 0 ? errno : 0;
}

} // namespace Linux
