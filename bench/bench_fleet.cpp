// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// quillmere-radio fleet against an echo that does nothing but acknowledge: what the tool itself can do, and
// what a registration costs it, so that a figure measured with it is known to be the server's.
//
// bench_fleet [RADIOS] [RATE...]: default a million radios of 127.0.0.0/8, 50000 and 1000000 a second (the
// last is as fast as both can).
#include "radio/qmrs.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr size_t Batch = 64;
constexpr quint32 FirstAddress = 0x7F010000; // 127.1.0.0: the echo's is not among them

// Ends the process when the one that made it does.
pid_t forked()
{
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("fork");
        std::exit(1);
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    return child;
}

// The port of a new socket on loopback.
std::pair<int, quint16> openEcho()
{
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof own;
    const int buffer = 4096 * 1024;
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    if (::bind(descriptor, reinterpret_cast<sockaddr *>(&own), sizeof own) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr *>(&own), &size) != 0) {
        std::perror("echo");
        std::exit(1);
    }
    return {descriptor, ntohs(own.sin_port)};
}

// Makes a registration its acknowledgement; the size to send.
size_t acknowledge(QMR::Qmrs::Buffer &bytes, size_t size)
{
    const auto message = QMR::Qmrs::decodeRadioMessage(QByteArrayView(bytes.data(), size));
    const auto *registration = std::get_if<QMR::Qmrs::Registration>(&message);
    if (registration == nullptr) {
        return 0;
    }
    QMR::Qmrs::writeHeader(bytes, static_cast<quint8>(registration->protocolVersion), registration->esn,
                           QMR::Qmrs::Opcode::Acknowledgement, 1);
    bytes[QMR::Qmrs::HeaderSize] = 0;
    return QMR::Qmrs::HeaderSize + 1;
}

[[noreturn]] void echo(int descriptor)
{
    static std::array<QMR::Qmrs::Buffer, Batch> buffers{};
    static std::array<sockaddr_in, Batch> senders{};
    static std::array<iovec, Batch> parts{};
    static std::array<mmsghdr, Batch> headers{};
    while (true) {
        for (size_t i = 0; i < Batch; ++i) {
            parts[i] = {buffers[i].data(), buffers[i].size()};
            headers[i].msg_hdr = {};
            headers[i].msg_hdr.msg_name = &senders[i];
            headers[i].msg_hdr.msg_namelen = sizeof senders[i];
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        const int count = ::recvmmsg(descriptor, headers.data(), Batch, MSG_WAITFORONE, nullptr);
        for (size_t i = 0; std::cmp_less(i, count); ++i) {
            parts[i].iov_len = acknowledge(buffers[i], headers[i].msg_len);
        }
        if (count > 0) {
            ::sendmmsg(descriptor, headers.data(), static_cast<unsigned int>(count), 0);
        }
    }
}

QString dotted(quint32 address)
{
    return u"%1.%2.%3.%4"_s.arg(address >> 24)
        .arg(address >> 16 & 0xFF)
        .arg(address >> 8 & 0xFF)
        .arg(address & 0xFF);
}

double seconds(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

bool measure(quint32 radios, const QString &rate, quint16 port)
{
    std::array<int, 2> output{};
    if (::pipe(output.data()) != 0) {
        return false;
    }
    const pid_t tool = forked();
    if (tool == 0) {
        ::dup2(output[1], STDOUT_FILENO);
        const QStringList line{QString::fromUtf8(QUILLMERE_RADIO_PROGRAM),
                               u"fleet"_s,
                               u"--json"_s,
                               u"--server"_s,
                               u"127.0.0.1:%1"_s.arg(port),
                               u"--rate"_s,
                               rate,
                               u"--addresses"_s,
                               dotted(FirstAddress) + u'-' + dotted(FirstAddress + radios - 1)};
        std::vector<QByteArray> arguments;
        arguments.reserve(static_cast<size_t>(line.size()));
        for (const QString &argument : line) {
            arguments.push_back(argument.toLocal8Bit());
        }
        std::vector<char *> pointers;
        pointers.reserve(arguments.size() + 1);
        for (QByteArray &argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        ::execv(pointers.front(), pointers.data());
        std::perror("quillmere-radio");
        std::_Exit(1);
    }
    ::close(output[1]);
    QByteArray text;
    std::array<char, 4096> part{};
    for (ssize_t size = 1; size > 0;) {
        size = ::read(output[0], part.data(), part.size());
        text.append(part.data(), std::max<ssize_t>(size, 0));
    }
    ::close(output[0]);
    int status = 0;
    rusage usage{};
    ::wait4(tool, &status, 0, &usage);
    const QJsonObject summary = QJsonDocument::fromJson(text).object();
    if (summary.isEmpty()) {
        return false;
    }
    const double sent = summary[u"sent"_s].toDouble();
    const QJsonObject latency = summary[u"latencyMs"_s].toObject();
    std::printf(
        "%10s /s aimed at %10.0f /s acknowledged %8.0f lost %8.0f repeated   %5.2f us own time each   "
        "%4ld MiB   p50 %.2f ms p99 %.2f ms\n",
        qPrintable(rate), summary[u"acknowledgedPerSecond"_s].toDouble(), summary[u"lost"_s].toDouble(),
        summary[u"repeated"_s].toDouble(), (seconds(usage.ru_utime) + seconds(usage.ru_stime)) / sent * 1e6,
        usage.ru_maxrss / 1024, latency[u"p50"_s].toDouble(), latency[u"p99"_s].toDouble());
    std::fflush(stdout);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    const quint32 radios = argc > 1 ? QByteArray(argv[1]).toUInt() : 1'000'000;
    QStringList rates{u"50000"_s, u"1000000"_s};
    if (argc > 2) {
        rates.clear();
    }
    for (int i = 2; i < argc; ++i) {
        rates.append(QString::fromLocal8Bit(argv[i]));
    }
    const auto [descriptor, port] = openEcho();
    const pid_t echoing = forked();
    if (echoing == 0) {
        echo(descriptor);
    }
    std::printf("A fleet of %u radios, each registering once (aim: 50000 a second)\n", radios);
    std::fflush(stdout);
    bool good = true;
    for (const QString &rate : rates) {
        good = measure(radios, rate, port) && good;
    }
    ::kill(echoing, SIGKILL);
    ::waitpid(echoing, nullptr, 0);
    return good ? 0 : 1;
}
