// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The machine's log: the journal, or syslog where there is no journal. It never holds its caller up for good,
// whatever their readers do.
#pragma once

#include "service/linux/eventlog.h"

#include <QByteArray>

#include <sys/socket.h>

#include <functional>
#include <mutex>

namespace Linux {

// The sockets of this machine's log, and the call that sends to them; a test names others.
struct LogPlaces
{
    QByteArray journal = "/run/systemd/journal/socket";
    QByteArray syslog = "/dev/log";
    std::function<ssize_t(int, const msghdr *, int)> sendMessage = ::sendmsg;
};
LogPlaces &logPlaces();

// Holds one descriptor, from the first record on. Any thread may write; records are kept in order.
class SystemLog
{
public:
    explicit SystemLog(const LogPlaces &where); // they must outlive it
    ~SystemLog();
    Q_DISABLE_COPY_MOVE(SystemLog)

    // False: the record is lost. Waits for a reader whose queue is full, a second or two at most; where that
    // was in vain, the following records are not waited for until one gets through.
    bool write(const EventRecord &record);

private:
    struct Reader
    {
        const QByteArray &path;
        bool isWaitedFor = true;
    };

    void open();
    int send(Reader &reader, const QByteArray &bytes, int file = -1);
    int sendAsFile(Reader &reader, const QByteArray &bytes);
    int sendPatiently(Reader &reader, const msghdr &message);
    int transmit(const msghdr &message, int flags);

    const LogPlaces &places;
    std::mutex mutex;
    int descriptor = -1;
    Reader journal;
    Reader syslog;
};

} // namespace Linux
