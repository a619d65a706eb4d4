// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What quillmere-monitor needs while radios change and browsers follow: its share of a processor, its memory,
// and how long a change takes from the server's notice to the last of the browsers. One more browser reads
// nothing.
//
// bench_monitor [--quick]: the server is this process, and so are the browsers.
#include "apps/qmra.h"
#include "bench/fail.h"
#include "bench/table.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

enum Column { Share, Memory, Median, Worst };

constexpr quint32 ChangesPerSecond = 1000;
constexpr int Tick = 10; // ms
constexpr size_t Browsers = 10;
constexpr quint32 RadioStates = 16; // that the monitor remembers of each
constexpr int Patience = 60000;     // ms, for anything to happen

QMR::Qmra::RadioNotice radio(quint32 number, quint32 address)
{
    QMR::Qmra::RadioNotice notice;
    for (size_t i = 0; i < 4; ++i) {
        notice.esn.bytes[7 - i] = static_cast<quint8>(number >> (8 * i));
        notice.suid.bytes[6 - std::min<size_t>(i, 2)] = notice.esn.bytes[7 - std::min<size_t>(i, 2)];
    }
    notice.address = address;
    notice.availability = QMR::Registered;
    notice.services = {1, 3};
    return notice;
}

// Reads what a browser does, and looks for an address in it.
class Browser
{
public:
    explicit Browser(quint16 port)
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write("GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QObject::connect(&socket, &QTcpSocket::readyRead, &socket, [this] {
            const QByteArray text = rest + socket.readAll();
            isLoaded = isLoaded || text.contains("event: snapshot\n");
            hasSeen = hasSeen || (!wanted.isEmpty() && text.contains(wanted));
            rest = text.right(100); // what is wanted may have been cut
        });
    }

    void lookFor(quint32 address)
    {
        wanted = '"' + QHostAddress(address).toString().toLatin1() + '"';
        hasSeen = false;
    }
    void stopReading()
    {
        socket.disconnect();
        socket.setReadBufferSize(1024);
    }

    bool isLoaded = false;
    bool hasSeen = true;

private:
    QTcpSocket socket;
    QByteArray wanted;
    QByteArray rest;
};

class MonitorBench
{
public:
    MonitorBench(quint32 newRadios, int newSeconds) : radios(newRadios), period(newSeconds) {}

    void measure(Table &table);

private:
    void start();
    void change();
    void wait(const std::function<bool()> &condition, const QString &what) const;
    double processorSeconds() const;
    double peakMegabytes() const;

    const quint32 radios;
    const int period; // s
    QTcpServer server;
    QTcpSocket *application = nullptr;
    QProcess monitor;
    std::vector<std::unique_ptr<Browser>> browsers;
    quint32 changes = 0;
};

void MonitorBench::wait(const std::function<bool()> &condition, const QString &what) const
{
    if (!QTest::qWaitFor(condition, Patience)) {
        fail(u"not within a minute: "_s + what);
    }
}

void MonitorBench::start()
{
    QTcpServer free;
    if (!server.listen(QHostAddress::LocalHost) || !free.listen(QHostAddress::LocalHost)) {
        fail(u"no port to listen at"_s);
    }
    const quint16 port = free.serverPort();
    free.close();
    monitor.setProcessChannelMode(QProcess::SeparateChannels);
    monitor.start(QString::fromUtf8(QUILLMERE_MONITOR_PROGRAM),
                  {u"--server"_s, u"127.0.0.1:%1"_s.arg(server.serverPort()), u"--listen"_s,
                   u"127.0.0.1:%1"_s.arg(port)});
    wait([this] { return (application = server.nextPendingConnection()) != nullptr; },
         u"the monitor's connection"_s);
    for (quint32 round = 0; round < RadioStates;
         ++round) { // first the table; then each history is as long as it gets
        for (quint32 number = 0; number < radios; ++number) {
            const auto message = QMR::Qmra::encodeNotice(radio(number, 0x0A000000 + round * radios + number));
            application->write(message.bytes.data(), message.size);
        }
        wait([this] { return application->bytesToWrite() == 0; }, u"the table"_s);
    }
    for (size_t i = 0; i < Browsers; ++i) {
        browsers.push_back(std::make_unique<Browser>(port));
        wait([this] { return browsers.back()->isLoaded; }, u"a browser's table"_s);
    }
    browsers.push_back(std::make_unique<Browser>(port));
    browsers.back()->stopReading();
}

// Of a radio, each time another one, and to an address that none had before.
void MonitorBench::change()
{
    const auto number = static_cast<quint32>(changes * quint64{7919} % radios);
    const auto message = QMR::Qmra::encodeNotice(radio(number, 0x0B000000 + changes++));
    application->write(message.bytes.data(), message.size);
}

double MonitorBench::processorSeconds() const
{
    QFile file(u"/proc/%1/stat"_s.arg(monitor.processId()));
    if (!file.open(QIODevice::ReadOnly)) {
        fail(u"the monitor is gone"_s);
    }
    const QByteArrayList fields = file.readAll().split(' ');
    return (fields[13].toDouble() + fields[14].toDouble()) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double MonitorBench::peakMegabytes() const
{
    QFile file(u"/proc/%1/status"_s.arg(monitor.processId()));
    if (!file.open(QIODevice::ReadOnly)) {
        fail(u"the monitor is gone"_s);
    }
    const QByteArray text = file.readAll();
    return text.mid(text.indexOf("VmHWM:") + 6).trimmed().split(' ').first().toDouble() / 1024;
}

void MonitorBench::measure(Table &table)
{
    start();
    std::vector<double> delays; // ms
    const double before = processorSeconds();
    QElapsedTimer wall;
    wall.start();
    QElapsedTimer sinceMark;
    const auto allHaveSeen = [this] {
        return std::all_of(browsers.begin(), browsers.begin() + Browsers,
                           [](const auto &browser) { return browser->hasSeen; });
    };
    while (wall.elapsed() < qint64{1000} * period) {
        const qint64 due = wall.elapsed() * ChangesPerSecond / 1000;
        while (changes < due) {
            change();
        }
        if (allHaveSeen()) {
            if (sinceMark.isValid()) {
                delays.push_back(static_cast<double>(sinceMark.nsecsElapsed()) / 1e6);
            }
            for (size_t i = 0; i < Browsers; ++i) {
                browsers[i]->lookFor(0x0B000000 + changes);
            }
            change();
            sinceMark.start();
        }
        QTest::qWait(Tick);
    }
    const double share = (processorSeconds() - before) / (static_cast<double>(wall.nsecsElapsed()) / 1e9);
    wait(allHaveSeen, u"the last change"_s);
    std::ranges::sort(delays);

    const QString name =
        u"%1 radios, %2 changes a second"_s.arg(Table::grouped(radios), Table::grouped(ChangesPerSecond));
    table.put(Share, name, share * 100, 1, Aim{Aim::AtMost, 30});
    table.put(Memory, name, peakMegabytes(), 0, Aim{Aim::AtMost, 200});
    table.put(Median, name, delays.empty() ? Patience : delays[delays.size() / 2], 0);
    table.put(Worst, name, delays.empty() ? Patience : delays.back(), 0, Aim{Aim::AtMost, 1000});
    table.remark(name, u"30 %, 200 MB, 1000 ms"_s);
    monitor.terminate();
    monitor.waitForFinished();
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const bool isQuick = QCoreApplication::arguments().contains(u"--quick"_s);
    try {
        std::printf("quillmere-monitor while %zu browsers follow it and one more reads nothing\n\n",
                    Browsers);
        Table table({u"processor (%)"_s, u"memory (MB)"_s, u"median (ms)"_s, u"worst (ms)"_s});
        for (const quint32 radios :
             isQuick ? std::vector<quint32>{20'000} : std::vector<quint32>{1000, 100'000}) {
            MonitorBench(radios, isQuick ? 2 : 20).measure(table);
        }
        table.print();
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return 0;
}
