// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/sizebench.h"

#include "bench/fail.h"
#include "bench/placebench.h"

#include <QDateTime>
#include <QFile>

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr uint32_t Window = 32;
constexpr uint32_t Million = 1'000'000;
constexpr uint32_t NewRadios = 10'000;
constexpr auto Journal = BareStatements::Journal::Rollback;

// Makes the next reader wait for the disk.
void dropFromCache(QFile &file)
{
    if (::fsync(file.handle()) != 0 || ::posix_fadvise(file.handle(), 0, 0, POSIX_FADV_DONTNEED) != 0) {
        fail(u"cannot sync "_s + file.fileName());
    }
}

void copy(const QString &from, const QString &to)
{
    if (!QFile::copy(from, to)) {
        fail(u"cannot write "_s + to);
    }
}

std::vector<double> ratios(const std::vector<double> &of, const std::vector<double> &to)
{
    std::vector<double> result;
    std::ranges::transform(of, to, std::back_inserter(result), std::divides());
    return result;
}

} // namespace

// A server with a table of this size, and a bare loop on a copy of it.
struct SizeBench::Size
{
    uint32_t radios;
    std::unique_ptr<ServerProcess> server;
    std::unique_ptr<RadioLoad> load;
    std::unique_ptr<BareStatements> bare;
    RadioOrder ofServer;
    RadioOrder ofBare;
    double bytes = 0;
    double newRadio = 0; // processor time, us
    std::vector<double> rate{};
    std::vector<double> processor{};
    std::vector<double> bareRate{};
};

SizeBench::SizeBench(const Plan &newPlan, Table &newTable, qsizetype newDiskColumn, QString newDisk,
                     qsizetype newMemoryColumn, QString newMemory)
    : plan(newPlan),
      table(newTable),
      diskColumn(newDiskColumn),
      disk(std::move(newDisk)),
      memoryColumn(newMemoryColumn),
      memory(std::move(newMemory))
{
}

void SizeBench::run()
{
    table.separate();
    std::vector<Size> sizes;
    for (const uint32_t radios : plan.tableSizes) {
        sizes.push_back(open(radios));
    }
    for (int round = 0; round < plan.rounds; ++round) {
        std::ranges::for_each(sizes, [this](Size &size) { measure(size); });
    }
    table.separate();
    for (Size &size : sizes) {
        const double before = size.server->processorMicroseconds();
        const RadioLoad::Result result = size.load->atOnce(size.radios, NewRadios);
        size.newRadio = (size.server->processorMicroseconds() - before) / result.acknowledged;
        put(size, sizes.front());
    }
    const auto extra = [&sizes](const Size &size) { return size.bytes - sizes.front().bytes; };
    table.put(memoryColumn, u"Memory a radio (bytes)"_s,
              extra(sizes.back()) / (sizes.back().radios - sizes.front().radios), 0);
}

SizeBench::Size SizeBench::open(uint32_t radios)
{
    Size size{.radios = radios,
              .server = std::make_unique<ServerProcess>(memory),
              .load = nullptr,
              .bare = nullptr,
              .ofServer = RadioOrder(radios, plan.participants),
              .ofBare = RadioOrder(radios, plan.participants)};
    const QString database = size.server->database();
    BareStatements(database, Journal).fill(radios, QDateTime::currentSecsSinceEpoch());
    startFromDisk(database, radios);
    const QString bareDatabase = size.server->file(u"bare.db"_s);
    copy(database, bareDatabase);
    size.bare = std::make_unique<BareStatements>(bareDatabase, Journal);
    putStart(memoryColumn, radios, size.server->start());
    size.bytes = static_cast<double>(size.server->memory());
    size.load = std::make_unique<RadioLoad>(size.server->port());
    if (size.load->registerEach(size.ofServer, Window).lost() > 0) {
        fail(u"the server does not acknowledge"_s);
    }
    return size;
}

void SizeBench::startFromDisk(const QString &database, uint32_t radios)
{
    ServerProcess server(disk);
    copy(database, server.database());
    QFile file(server.database());
    if (!file.open(QIODevice::ReadOnly)) {
        fail(u"cannot read "_s + file.fileName());
    }
    dropFromCache(file);
    file.close();
    putStart(diskColumn, radios, server.start());
}

void SizeBench::putStart(qsizetype column, uint32_t radios, double seconds)
{
    const QString row = u"Start with %1 stored radios (s)"_s.arg(Table::grouped(radios));
    if (radios == Million) {
        table.put(column, row, seconds, 2, Aim{Aim::AtMost, 30});
        table.remark(row, u"30 or less"_s);
    } else {
        table.put(column, row, seconds, 2);
    }
}

void SizeBench::measure(Size &size)
{
    const double before = size.server->processorMicroseconds();
    const RadioLoad::Result result = size.load->keepUnderWay(size.ofServer, Window, plan.round);
    if (result.lost() > 0) {
        fail(u"the server does not acknowledge"_s);
    }
    size.rate.push_back(result.rate());
    size.processor.push_back((size.server->processorMicroseconds() - before) / result.acknowledged);
    size.bareRate.push_back(bareRate(*size.bare, size.ofBare, Window, plan.round));
}

void SizeBench::put(const Size &size, const Size &smallest)
{
    const QString name = Table::grouped(size.radios) + u" radios: "_s;
    table.put(memoryColumn, name + u"rate, 32 under way (/s)"_s, median(size.rate), 0);
    table.put(memoryColumn, name + u"processor time (us)"_s, median(size.processor), 1);
    table.put(memoryColumn, name + u"a new one's (us)"_s, size.newRadio, 1);
    if (&size == &smallest) {
        return;
    }
    const QString cost = name + u"processor time / 1,000's"_s;
    table.put(memoryColumn, cost, median(ratios(size.processor, smallest.processor)), 2,
              size.radios == Million ? std::optional(Aim{Aim::AtMost, 1.2}) : std::nullopt);
    table.remark(cost, size.radios == Million ? u"1.2 or less"_s : QString());
    table.put(memoryColumn, name + u"rate / 1,000's"_s, median(ratios(size.rate, smallest.rate)), 2);
    table.put(memoryColumn, name + u"bare rate / 1,000's"_s, median(ratios(size.bareRate, smallest.bareRate)),
              2);
}
