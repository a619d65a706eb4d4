// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/crowdmember.h"

#include "apps/qmra.h"
#include "bench/fail.h"
#include "tools/linux/socketaddress.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto PiecePause = 100ms;
constexpr auto TakePause = 50ms;
constexpr qsizetype Taken = 32LL * 1024;
constexpr qsizetype Piece = 5; // four are a message; each ends in the middle of one

// Those that come and go have many addresses: a connection that has ended keeps its port for a minute.
constexpr quint32 FirstAddress = 0x7F090001U; // 127.9.0.1
constexpr quint32 Addresses = 200;

// -1: refused.
int connectOne(quint32 source, quint16 port)
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    const sockaddr_in own = socketAddress(source, 0);
    const sockaddr_in server = socketAddress(INADDR_LOOPBACK, port);
    ::setsockopt(descriptor, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &yes, sizeof yes);
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0 ||
        ::connect(descriptor, reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

// Bytes, 0 for none just now; false: the server has gone.
bool sendSome(int member, const char *bytes, qsizetype size, qsizetype &sent)
{
    const ssize_t count = ::send(member, bytes, static_cast<size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
    sent = std::max<ssize_t>(count, 0);
    return count >= 0 || errno == EAGAIN;
}

} // namespace

std::vector<int> connectAll(quint16 port, int count)
{
    std::vector<int> members;
    while (static_cast<int>(members.size()) < count) {
        members.push_back(connectOne(INADDR_LOOPBACK, port));
        if (members.back() < 0) {
            fail(u"cannot connect"_s);
        }
    }
    return members;
}

void trickle(const std::vector<int> &members)
{
    // Of a radio that nobody knows.
    const QByteArray report = QMR::Qmra::encodeReport({});
    const QByteArray reports = report + report;
    qsizetype position = 0;
    qsizetype size = Piece - 1;
    for (auto due = std::chrono::steady_clock::now();; due += PiecePause) {
        std::this_thread::sleep_until(due);
        for (const int member : members) {
            qsizetype sent = 0;
            if (!sendSome(member, reports.constData() + position, size, sent)) {
                return;
            }
        }
        position = (position + size) % report.size();
        size = Piece;
    }
}

void flood(const std::vector<int> &members, const QByteArray &content)
{
    std::vector<pollfd> waiting;
    waiting.reserve(members.size());
    for (const int member : members) {
        waiting.push_back({member, POLLOUT, 0});
    }
    std::vector<qsizetype> positions(members.size());
    while (::poll(waiting.data(), waiting.size(), -1) > 0) {
        for (size_t i = 0; i < members.size(); ++i) {
            qsizetype sent = 0;
            if (waiting[i].revents != 0 && !sendSome(members[i], content.constData() + positions[i],
                                                     content.size() - positions[i], sent)) {
                return;
            }
            positions[i] = (positions[i] + sent) % content.size();
        }
    }
}

void takeSlowly(const std::vector<int> &members)
{
    std::vector<char> taken(Taken);
    while (true) {
        std::this_thread::sleep_for(TakePause);
        for (const int member : members) {
            const ssize_t count = ::recv(member, taken.data(), taken.size(), MSG_DONTWAIT);
            if (count == 0 || (count < 0 && errno != EAGAIN)) {
                return;
            }
        }
    }
}

void comeAndGo(quint16 port, int count, const std::function<void()> &counted)
{
    for (int i = 0;; ++i) {
        const int member = connectOne(FirstAddress + static_cast<quint32>(i) % Addresses, port);
        if (member < 0) {
            return;
        }
        ::close(member);
        if (i == count) {
            counted();
        }
    }
}

QByteArray validMessages()
{
    const QByteArray shortest = QByteArray("QMRA\x04\x03\0\0", QMR::Qmra::HeaderSize);
    QByteArray both = shortest + QByteArray("QMRA\x04\x03\x15\x01", QMR::Qmra::HeaderSize);
    both.append(QMR::Qmra::MaximumPayload, '\0');
    return both.repeated(256);
}
