// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/serverprocess.h"

#include "bench/fail.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QUdpSocket>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <ctime>

using namespace Qt::StringLiterals;

namespace {

constexpr int StartPatience = 300'000; // ms
constexpr int StopPatience = 60'000;   // ms

// One that is free now: what else runs on the machine is left alone.
quint16 freePort()
{
    QUdpSocket socket;
    if (!socket.bind()) {
        fail(u"no UDP port is free"_s);
    }
    return socket.localPort();
}

quint16 freeListeningPort()
{
    QTcpServer listener;
    if (!listener.listen(QHostAddress::LocalHost)) {
        fail(u"no TCP port is free"_s);
    }
    return listener.serverPort();
}

int openNotified(const QByteArray &path)
{
    sockaddr_un own{};
    own.sun_family = AF_UNIX;
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (path.size() >= static_cast<qsizetype>(sizeof own.sun_path)) {
        fail(u"the folder's path is too long"_s);
    }
    std::memcpy(own.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0) {
        fail(u"cannot make a socket"_s);
    }
    return descriptor;
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
    ::close(notified);
}

QString ServerProcess::database() const
{
    return file(u"Brackwater/Quill Mere/qmr.db"_s);
}

double ServerProcess::start()
{
    registrationPort = freePort();
    listeningPort = freeListeningPort();
    QFile configuration(QFileInfo(database()).path() + u"/qmr.cfg"_s);
    if (!configuration.open(QIODevice::WriteOnly)) {
        fail(u"cannot write "_s + configuration.fileName());
    }
    // No radio is asked in between.
    configuration.write("minimumDiscoveryPeriod=86400\napplicationPort=" + QByteArray::number(listeningPort) +
                        "\nradioRegistrationPort=" + QByteArray::number(registrationPort) + '\n');
    configuration.close();

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"QUILLMERE_APPDATA"_s, folder.path());
    const QString notification = file(u"notify"_s);
    notified = openNotified(QFile::encodeName(notification));
    environment.insert(u"NOTIFY_SOCKET"_s, notification);
    environment.insert(u"QUILLMERE_EVENTLOG"_s, file(u"events.json"_s));
    process.setProcessEnvironment(environment);
    process.setChildProcessModifier(
        [] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }); // it never outlives a failed benchmark
    QElapsedTimer timer;
    timer.start();
    process.start(QString::fromUtf8(QUILLMERE_PROGRAM), QStringList());
    while (!hasStarted()) {
        if (process.waitForFinished(5) || timer.hasExpired(StartPatience)) {
            fail(u"the server did not start"_s);
        }
    }
    return static_cast<double>(timer.nsecsElapsed()) / 1e9;
}

double ServerProcess::stop()
{
    QElapsedTimer timer;
    timer.start();
    process.terminate();
    if (!process.waitForFinished(StopPatience) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        fail(u"the server does not stop"_s);
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
