// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the server does, in its own process and over real UDP, beside a bare loop of the same SQL statements:
// one table, with the aims beside the figures. What is compared alternates in rounds within one run, so that
// a machine that is slow for a while is slow for both; the figures are the rounds' medians.
//
// bench_table [--quick] [FOLDER]: FOLDER is on the disk to measure, default the current one.
#include "bench/benchmain.h"
#include "bench/fail.h"
#include "bench/lockholder.h"
#include "bench/placebench.h"
#include "bench/sizebench.h"

#include <QDir>
#include <QFile>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int WantedBuffer = 8 * 1024 * 1024; // as the server's registration socket does

// Of the receive buffer that a socket asks for, what the system gives.
int receiveBuffer()
{
    const int descriptor = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int given = 0;
    socklen_t size = sizeof given;
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &WantedBuffer, sizeof WantedBuffer);
    if (::getsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &given, &size) != 0) {
        fail(u"cannot make a socket"_s);
    }
    ::close(descriptor);
    return given / 2; // it tells the double, for its own bookkeeping
}

void progress(const QString &text)
{
    std::fprintf(stderr, "Measuring %s\n", qPrintable(text));
}

void measure(QStringList arguments)
{
    const Plan plan = arguments.removeAll(u"--quick"_s) > 0 ? Plan::quick() : Plan();
    const QString disk = QDir(arguments.value(0, u"."_s)).absolutePath();
    const QString memory = u"/dev/shm"_s;

    using Journal = BareStatements::Journal;
    const std::vector<Place> places{{u"disk"_s, disk, Journal::Rollback, true},
                                    {u"disk, WAL"_s, disk, Journal::WriteAhead, true},
                                    {u"memory"_s, memory, Journal::Rollback, false},
                                    {u"memory, WAL"_s, memory, Journal::WriteAhead, false}};
    QStringList names;
    std::ranges::transform(places, std::back_inserter(names), &Place::name);
    Table table(names);
    for (size_t i = 0; i < places.size(); ++i) {
        progress(names[static_cast<qsizetype>(i)]);
        PlaceBench(places[i], static_cast<qsizetype>(i), plan, table).run();
    }
    progress(u"tables of several sizes"_s);
    SizeBench(plan, table, 0, disk, 2, memory).run();

    std::printf(
        "Registrations; disk: %s, memory: %s, each with a rollback journal and with a write-ahead log\n",
        qPrintable(disk), qPrintable(memory));
    std::printf("Receive buffer that the system gives: %d KiB of %d (net.core.rmem_max)\n\n",
                receiveBuffer() / 1024, WantedBuffer / 1024);
    table.print();
}

} // namespace

int main(int argc, char **argv)
{
    return benchMain(argc, argv, measure, LockHolder::isAsked, LockHolder::hold);
}
