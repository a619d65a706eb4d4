// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/unit/linux/logreader.h"

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>

using namespace Qt::StringLiterals;
using namespace Linux;

LogReader::LogReader(const QByteArray &path) : descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    ::unlink(path.constData());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    const timeval patience = {30, 0};
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
        qFatal("cannot bind %s", path.constData());
    }
}

LogReader::~LogReader()
{
    ::close(descriptor);
}

std::optional<QByteArray> LogReader::next()
{
    return receive(MSG_DONTWAIT);
}

QByteArray LogReader::awaited()
{
    return receive(0).value_or(QByteArray());
}

std::optional<QByteArray> LogReader::receive(int flags)
{
    static QByteArray buffer(4 * 1024 * 1024, '\0');
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec content = {buffer.data(), static_cast<size_t>(buffer.size())};
    msghdr message = {};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = ::recvmsg(descriptor, &message, flags | MSG_CMSG_CLOEXEC);
    if (size < 0) {
        return {};
    }
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (!header) {
        return QByteArray(buffer.constData(), size);
    }
    int file = -1;
    std::memcpy(&file, CMSG_DATA(header), sizeof file);
    constexpr int AllSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
    struct stat found = {};
    if (size != 0 || ::fcntl(file, F_GET_SEALS) != AllSeals || ::fstat(file, &found) != 0) {
        qFatal("a file that the journal would not read");
    }
    QByteArray bytes(found.st_size, '\0');
    if (::pread(file, bytes.data(), static_cast<size_t>(bytes.size()), 0) != bytes.size()) {
        qFatal("the file is shorter than it says");
    }
    ::close(file);
    ++files;
    return bytes;
}

LogFolder::LogFolder()
{
    places.journal = QFile::encodeName(folder.filePath(u"journal"_s));
    places.syslog = QFile::encodeName(folder.filePath(u"log"_s));
}

void LogFolder::countWaits()
{
    places.sendMessage = [this](int descriptor, const msghdr *message, int flags) {
        waits += (flags & MSG_DONTWAIT) == 0;
        return ::sendmsg(descriptor, message, flags | MSG_DONTWAIT);
    };
}

std::optional<Fields> parsedFields(const QByteArray &bytes)
{
    Fields fields;
    for (qsizetype place = 0; place < bytes.size();) {
        const qsizetype lineEnd = bytes.indexOf('\n', place);
        if (lineEnd < 0) {
            return {};
        }
        const QByteArray line = bytes.sliced(place, lineEnd - place);
        const qsizetype sign = line.indexOf('=');
        place = lineEnd + 1;
        if (sign >= 0) {
            fields.append({line.first(sign), line.sliced(sign + 1)});
            continue;
        }
        if (bytes.size() - place < 8) {
            return {};
        }
        quint64 size = 0;
        for (int i = 7; i >= 0; --i) {
            size = size << 8 | static_cast<quint8>(bytes[place + i]);
        }
        place += 8;
        const auto rest = static_cast<quint64>(bytes.size() - place);
        if (size >= rest || bytes[place + static_cast<qsizetype>(size)] != '\n') {
            return {};
        }
        fields.append({line, bytes.sliced(place, static_cast<qsizetype>(size))});
        place += static_cast<qsizetype>(size) + 1;
    }
    return fields;
}

QByteArray messageOf(const QByteArray &bytes)
{
    const std::optional<Fields> fields = parsedFields(bytes);
    return fields && !fields->isEmpty() && fields->first().first == "MESSAGE" ? fields->first().second
                                                                              : "not a record: " + bytes;
}

EventRecord record(const QString &message)
{
    EventRecord result;
    result.time = QDateTime::fromString(u"2026-11-21T10:00:00.123Z"_s, Qt::ISODateWithMs);
    result.source = u"Quill Mere"_s;
    result.type = Scm::EventWarning;
    result.id = 0xC0000001;
    result.message = message;
    return result;
}

int fill(SystemLog &log)
{
    int taken = 0;
    while (taken < 100000 && log.write(record(QString::number(taken)))) {
        ++taken;
    }
    return taken;
}

QList<int> openDescriptors()
{
    QList<int> numbers;
    for (const QString &name : QDir(u"/proc/self/fd"_s).entryList(QDir::NoDotAndDotDot | QDir::AllEntries)) {
        if (::fcntl(name.toInt(), F_GETFD) >= 0) { // not that of the listing
            numbers.append(name.toInt());
        }
    }
    return numbers;
}
