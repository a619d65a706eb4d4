// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/serverprocess.h"

#include "bench/fail.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QUdpSocket>

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

using namespace Qt::StringLiterals;

namespace {

constexpr int StartPatience = 300'000; // ms

// One that is free now: what else runs on the machine is left alone.
quint16 freePort()
{
    QUdpSocket socket;
    if (!socket.bind()) {
        fail(u"no UDP port is free"_s);
    }
    return socket.localPort();
}

} // namespace

ServerProcess::ServerProcess(const QString &place) : folder(place + u"/quillmere-bench-XXXXXX"_s)
{
    const QString data = QFileInfo(database()).path();
    if (!folder.isValid() || !QDir().mkpath(data)) {
        fail(u"cannot make a folder in %1"_s.arg(place));
    }
}

ServerProcess::~ServerProcess()
{
    process.kill();
    process.waitForFinished();
}

QString ServerProcess::database() const
{
    return file(u"Brackwater/Quill Mere/qmr.db"_s);
}

double ServerProcess::start()
{
    registrationPort = freePort();
    QFile configuration(QFileInfo(database()).path() + u"/qmr.cfg"_s);
    if (!configuration.open(QIODevice::WriteOnly)) {
        fail(u"cannot write "_s + configuration.fileName());
    }
    // No radio is asked in between.
    configuration.write("minimumDiscoveryPeriod=86400\napplicationPort=0\nradioRegistrationPort=" +
                        QByteArray::number(registrationPort) + '\n');
    configuration.close();

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"QUILLMERE_APPDATA"_s, folder.path());
    environment.insert(u"QUILLMERE_EVENTLOG"_s, file(u"events.json"_s));
    process.setProcessEnvironment(environment);
    process.setChildProcessModifier(
        [] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }); // it never outlives a failed benchmark
    QElapsedTimer timer;
    timer.start();
    process.start(QStringLiteral(QUILLMERE_PROGRAM), {u"-exec"_s});
    while (!hasStarted()) {
        if (process.waitForFinished(5) || timer.hasExpired(StartPatience)) {
            fail(u"the server did not start"_s);
        }
    }
    return static_cast<double>(timer.nsecsElapsed()) / 1e9;
}

bool ServerProcess::hasStarted() const
{
    QFile records(file(u"events.json"_s));
    const QByteArray text = records.open(QIODevice::ReadOnly) ? records.readAll() : QByteArray();
    if (text.contains("Unable to bind") || text.contains("Failed to")) {
        fail(QString::fromUtf8(text));
    }
    return text.contains("Service started");
}

double ServerProcess::processorMicroseconds() const
{
    clockid_t clock = 0;
    timespec time{};
    if (::clock_getcpuclockid(static_cast<pid_t>(process.processId()), &clock) != 0 ||
        ::clock_gettime(clock, &time) != 0) {
        fail(u"the server is gone"_s);
    }
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

qint64 ServerProcess::memory() const
{
    QFile statistics(u"/proc/%1/statm"_s.arg(process.processId()));
    const QByteArray text = statistics.open(QIODevice::ReadOnly) ? statistics.readAll() : QByteArray();
    return text.split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
}
