// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/placebench.h"

#include "bench/fail.h"
#include "bench/lockholder.h"

#include <QDateTime>

#include <array>
#include <functional>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr uint32_t KnownRadios = 2000;
constexpr std::array<uint32_t, 2> Groups = {1, 32};        // of the bare loop
constexpr std::array<uint32_t, 3> Windows = {1, 32, 1000}; // of the server
constexpr std::chrono::milliseconds AfterLock{1200};       // what is owed is written in it
constexpr uint32_t Warmup = 256;                           // under way: no small receive buffer drops any

} // namespace

struct PlaceBench::Figures
{
    std::array<std::vector<double>, Groups.size()> bare;
    std::array<std::vector<double>, Windows.size()> server;
    std::array<std::vector<double>, Windows.size()> processor;
    uint32_t lost = 0;
};

double bareRate(BareStatements &bare, RadioOrder &radios, uint32_t group, std::chrono::milliseconds time)
{
    std::vector<uint32_t> together(group);
    QElapsedTimer timer;
    timer.start();
    uint32_t done = 0;
    for (; !timer.hasExpired(time.count()); done += group) {
        std::ranges::generate(together, [&radios] { return radios.next(); });
        bare.update(together, QDateTime::currentSecsSinceEpoch());
    }
    return done * 1e9 / static_cast<double>(timer.nsecsElapsed());
}

PlaceBench::PlaceBench(Place newPlace, qsizetype newColumn, const Plan &newPlan, Table &newTable)
    : place(std::move(newPlace)),
      column(newColumn),
      plan(newPlan),
      table(newTable),
      server(place.folder),
      nextNew(KnownRadios)
{
}

void PlaceBench::run()
{
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    bare.emplace(server.file(u"bare.db"_s), place.journal);
    bare->fill(KnownRadios, now);
    BareStatements(server.database(), place.journal).fill(KnownRadios, now);
    server.start();
    load.emplace(server.port());
    compare();
    table.separate();
    burst(1000);
    burst(10'000);
    table.separate();
    lock();
}

void PlaceBench::compare()
{
    RadioOrder ofBare(KnownRadios);
    RadioOrder ofServer(KnownRadios);
    // After a start every radio is unconfirmed until it registers.
    if (load->registerEach(ofServer, Warmup).lost() > 0) {
        fail(u"the server does not acknowledge"_s);
    }
    Figures figures;
    for (int round = 0; round < plan.rounds; ++round) {
        measureBare(figures, ofBare);
        measureServer(figures, ofServer);
    }
    putComparison(figures);
}

void PlaceBench::measureBare(Figures &figures, RadioOrder &radios)
{
    for (size_t i = 0; i < Groups.size(); ++i) {
        figures.bare[i].push_back(bareRate(*bare, radios, Groups[i], plan.round));
    }
}

void PlaceBench::measureServer(Figures &figures, RadioOrder &radios)
{
    for (size_t i = 0; i < Windows.size(); ++i) {
        const double before = server.processorMicroseconds();
        const RadioLoad::Result result = load->keepUnderWay(radios, Windows[i], plan.round);
        if (result.acknowledged == 0) {
            fail(u"the server does not acknowledge"_s);
        }
        figures.server[i].push_back(result.rate());
        figures.processor[i].push_back((server.processorMicroseconds() - before) / result.acknowledged);
        figures.lost += result.lost();
    }
}

void PlaceBench::putComparison(const Figures &figures)
{
    const auto ratio = [&figures](size_t window, size_t group) {
        std::vector<double> ratios;
        std::ranges::transform(figures.server[window], figures.bare[group], std::back_inserter(ratios),
                               std::divides());
        return median(ratios);
    };
    for (size_t i = 0; i < Groups.size(); ++i) {
        table.put(column, u"Bare statements, %1 a commit (/s)"_s.arg(Groups[i]), median(figures.bare[i]), 0);
    }
    for (size_t i = 0; i < Windows.size(); ++i) {
        table.put(column, u"Server, %1 under way (/s)"_s.arg(Table::grouped(Windows[i])),
                  median(figures.server[i]), 0);
    }
    table.put(column, u"  lost of all these"_s, figures.lost, 0);
    for (size_t i = 0; i < Windows.size(); ++i) {
        table.put(column, u"Server's processor time, %1 under way (us)"_s.arg(Table::grouped(Windows[i])),
                  median(figures.processor[i]), 1);
    }
    table.separate();
    const auto put = [&](const QString &row, double figure, double onDisk, double inMemory) {
        table.put(column, row, figure, 2, atLeast(onDisk, inMemory));
        table.remark(row, u"disk %1, memory %2 or more"_s.arg(onDisk).arg(inMemory));
    };
    put(u"Server 1 / bare 1"_s, ratio(0, 0), 0.85, 0.7);
    put(u"Server 32 / bare 1"_s, ratio(1, 0), 8, 2.5);
    const QString both = u"Server 32 / bare 32"_s;
    table.put(column, both, ratio(1, 1), 2, place.isDisk ? std::optional(atLeast(0.8, 0)) : std::nullopt);
    table.remark(both, u"disk 0.8 or more"_s);
}

void PlaceBench::burst(uint32_t radios)
{
    std::vector<double> lost;
    std::vector<double> milliseconds;
    std::vector<double> processor;
    for (int i = 0; i < plan.bursts; ++i) {
        const double before = server.processorMicroseconds();
        const RadioLoad::Result result = load->atOnce(nextNew, radios);
        nextNew += radios;
        if (result.acknowledged == 0) {
            fail(u"the server acknowledges no new radio"_s);
        }
        lost.push_back(result.lost());
        milliseconds.push_back(result.seconds * 1000);
        processor.push_back((server.processorMicroseconds() - before) / result.acknowledged);
    }
    const QString row = Table::grouped(radios) + u" new radios at once: "_s;
    table.put(column, row + u"lost, at worst"_s, std::ranges::max(lost), 0, Aim{Aim::AtMost, 0});
    table.remark(row + u"lost, at worst"_s, u"none where the buffer is 8 MiB"_s);
    table.put(column, row + u"the last (ms)"_s, median(milliseconds), 0, Aim{Aim::AtMost, 2000});
    table.remark(row + u"the last (ms)"_s, u"2000 or less on a disk that commits in 10 ms"_s);
    table.put(column, row + u"processor (us)"_s, median(processor), 1);
}

void PlaceBench::lock()
{
    RadioOrder known(KnownRadios);
    LockHolder holder(server.database(), plan.lock);
    const RadioLoad::Result result = load->keepUnderWay(known, 1, plan.lock + AfterLock);
    holder.release();
    if (result.lost() > 0) {
        fail(u"a locked database keeps the server from acknowledging"_s);
    }
    const QString row =
        u"Worst delay, database locked for %1 s (ms)"_s.arg(static_cast<double>(plan.lock.count()) / 1000);
    table.put(column, row, result.worstMilliseconds, 0, Aim{Aim::AtMost, 275});
    table.remark(row, u"about 250 or less"_s);
}
