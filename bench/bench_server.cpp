// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The whole server (its own process, real UDP, its event log in a file) against a bare loop of the same SQL
// statements, with the same journal mode on the same file system, in one run. Rounds of both alternate, so
// that a machine that is slow for a while is slow for both.
//
// bench_server [FOLDER...]: the folders whose file systems to measure, default /dev/shm and the current
// folder.
#include "bench/barestatements.h"
#include "radio/qmrs.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <vector>

namespace {

constexpr uint32_t Radios = 2000;
constexpr int Rounds = 5;
constexpr int RoundMilliseconds = 1500;
constexpr int Window = 32; // registrations under way at once
constexpr uint16_t RegistrationPort = 9861;

const QMR::Suid Suid{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};

// Registrations from one socket: every radio registers from the one address, which the server hands from
// radio to radio. To keep each where it is, a radio has a socket at its own loopback address.
class Radio
{
public:
    explicit Radio(uint32_t number)
        : message(QMR::Qmrs::encodeExtendedRegistration(3, QMR::Esn{BareStatements::esn(number)}, Suid, false,
                                                        {1, 3})),
          descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(BareStatements::address(number));
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(RegistrationPort);
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(descriptor, reinterpret_cast<sockaddr *>(&own), sizeof own) != 0 ||
            ::connect(descriptor, reinterpret_cast<sockaddr *>(&server), sizeof server) != 0) {
            std::perror("radio");
            std::exit(1);
        }
    }
    ~Radio() { ::close(descriptor); }
    Q_DISABLE_COPY_MOVE(Radio)

    void send() const
    {
        if (::send(descriptor, message.constData(), static_cast<size_t>(message.size()), 0) < 0) {
            std::perror("send");
            std::exit(1);
        }
    }
    int socket() const { return descriptor; }

private:
    QByteArray message;
    int descriptor;
};

// Registers radio after radio, Window of them under way, until the time is up. Returns acknowledgements a
// second.
double serverRate(const std::vector<std::unique_ptr<Radio>> &radios, double &registrations)
{
    std::vector<pollfd> waiting;
    size_t next = 0;
    const auto sendNext = [&] {
        radios[next]->send();
        waiting.push_back({radios[next]->socket(), POLLIN, 0});
        next = (next + 1) % radios.size();
    };
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < Window; ++i) {
        sendNext();
    }
    int acknowledged = 0;
    bool sending = true;
    while (!waiting.empty()) {
        if (::poll(waiting.data(), waiting.size(), 5000) <= 0) {
            std::fprintf(stderr, "no acknowledgement within 5 s\n");
            std::exit(1);
        }
        std::vector<pollfd> ready;
        std::partition_copy(waiting.begin(), waiting.end(), std::back_inserter(ready), waiting.begin(),
                            [](const pollfd &entry) { return entry.revents != 0; });
        waiting.resize(waiting.size() - ready.size());
        for (const pollfd &entry : ready) {
            char answer[QMR::Qmrs::MaximumMessage];
            acknowledged += ::recv(entry.fd, answer, sizeof answer, 0) > 0 ? 1 : 0;
            sending = sending && timer.elapsed() < RoundMilliseconds;
            if (sending) {
                sendNext();
            }
        }
    }
    registrations += acknowledged;
    return acknowledged * 1000.0 / static_cast<double>(timer.elapsed());
}

// Processor time of a process so far, in microseconds: fields 14 and 15 of its statistics, in clock ticks.
double processorTime(qint64 process)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(process));
    const QList<QByteArray> fields =
        file.open(QIODevice::ReadOnly) ? file.readAll().split(' ') : QList<QByteArray>();
    return (fields.value(13).toDouble() + fields.value(14).toDouble()) * 1e6 /
           static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double bareRate(BareStatements &database, uint32_t &next)
{
    QElapsedTimer timer;
    timer.start();
    int done = 0;
    for (; timer.elapsed() < RoundMilliseconds; ++done) {
        database.update(next, QDateTime::currentSecsSinceEpoch());
        next = (next + 1) % Radios;
    }
    return done * 1000.0 / static_cast<double>(timer.elapsed());
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

bool hasStarted(QProcess &server, const QString &eventLog)
{
    QFile records(eventLog);
    for (int tries = 0; tries < 100; ++tries) {
        if (server.waitForFinished(100)) {
            return false;
        }
        const QByteArray text = records.open(QIODevice::ReadOnly) ? records.readAll() : QByteArray();
        records.close();
        if (text.contains("Service started")) {
            return !text.contains("Unable to bind");
        }
    }
    return false;
}

bool measure(const QString &place)
{
    const QTemporaryDir folder(place + QStringLiteral("/quillmere-bench-XXXXXX"));
    const QString data = folder.filePath(QStringLiteral("Brackwater/Quill Mere"));
    if (!folder.isValid() || !QDir().mkpath(data)) {
        std::fprintf(stderr, "cannot make a folder in %s\n", qPrintable(place));
        return false;
    }
    QFile configuration(data + QStringLiteral("/qmr.cfg"));
    if (!configuration.open(QIODevice::WriteOnly)) {
        return false;
    }
    configuration.write("radioRegistrationPort=" + QByteArray::number(RegistrationPort) +
                        "\napplicationPort=0\n");
    configuration.close();

    BareStatements bare(folder.filePath(QStringLiteral("bare.db")));
    bare.fill(Radios, QDateTime::currentSecsSinceEpoch());

    QProcess server;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QUILLMERE_APPDATA"), folder.path());
    environment.insert(QStringLiteral("QUILLMERE_EVENTLOG"), folder.filePath(QStringLiteral("events.json")));
    server.setProcessEnvironment(environment);
    server.setChildProcessModifier(
        [] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }); // it never outlives a failed benchmark
    server.start(QStringLiteral(QUILLMERE_PROGRAM), {QStringLiteral("-exec")});
    std::vector<std::unique_ptr<Radio>> radios;
    for (uint32_t number = 0; number < Radios; ++number) {
        radios.push_back(std::make_unique<Radio>(number));
    }
    if (!hasStarted(server, folder.filePath(QStringLiteral("events.json")))) {
        std::fprintf(stderr, "the server did not start\n");
        return false;
    }
    std::vector<double> ratios;
    std::vector<double> serverRates;
    std::vector<double> bareRates;
    uint32_t next = 0;
    double registrations = 0;
    serverRate(radios, registrations); // each radio's first registration: its insert is not what is measured
    registrations = 0;
    const double before = processorTime(server.processId());
    for (int round = 0; round < Rounds; ++round) {
        serverRates.push_back(serverRate(radios, registrations));
        bareRates.push_back(bareRate(bare, next));
        ratios.push_back(serverRates.back() / bareRates.back());
    }
    const double each = (processorTime(server.processId()) - before) / registrations;
    server.kill();
    server.waitForFinished();
    std::printf(
        "%-24s server %8.0f /s   bare loop %8.0f /s   ratio %.2f   processor %.1f us a registration\n",
        qPrintable(place), median(serverRates), median(bareRates), median(ratios), each);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QStringList places;
    for (int i = 1; i < argc; ++i) {
        places.append(QFile::decodeName(argv[i]));
    }
    if (places.isEmpty()) {
        places = {QStringLiteral("/dev/shm"), QDir::currentPath()};
    }
    std::printf("Registrations of %u known radios; medians of %d rounds (aim: 0.9 on disk, 0.5 in memory)\n",
                Radios, Rounds);
    return std::all_of(places.begin(), places.end(), measure) ? 0 : 1;
}
