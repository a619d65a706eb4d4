// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// How long radios and a stop wait while applications ask much of the server: 100 registrations a second, each
// timed from its sending to its acknowledgement, then a stop while they go on.
//
// bench_waiting [--quick] [FOLDER]: FOLDER is on the disk to measure, default the current one. Radios that
// fall silent together are not among it: the server looks for them every five minutes.
#include "bench/benchmain.h"
#include "bench/crowd.h"
#include "bench/fail.h"
#include "bench/plan.h"
#include "bench/radioload.h"
#include "bench/serverprocess.h"
#include "bench/table.h"

#include <QDateTime>
#include <QDir>

#include <cstdio>
#include <optional>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

enum Column { Median, Most, Worst, Lost, Stop };

constexpr uint32_t PerSecond = 100;
constexpr uint32_t KnownRadios = 2000;
constexpr uint32_t Window = 32; // of the first registrations

struct Situation
{
    QString name;
    std::optional<Crowd::Kind> kind{};
    int count = 0;
    uint32_t radios = KnownRadios;
};

double percentile(std::vector<double> values, double part)
{
    std::ranges::sort(values);
    return values[static_cast<size_t>(static_cast<double>(values.size() - 1) * part)];
}

class WaitingBench
{
public:
    WaitingBench(QString folder, std::chrono::milliseconds time) : place(std::move(folder)), period(time) {}

    void measure(const Situation &situation);
    void print() const { table.print(); }

private:
    RadioLoad::Result load(const Situation &situation, RadioLoad &radios, Crowd *crowd, RadioOrder &order);

    const QString place;
    const std::chrono::milliseconds period;
    Table table{{u"median (ms)"_s, u"p99 (ms)"_s, u"worst (ms)"_s, u"lost"_s, u"stop (s)"_s}};
};

void WaitingBench::measure(const Situation &situation)
{
    std::fprintf(stderr, "Measuring %s\n", qPrintable(situation.name));
    ServerProcess server(place);
    BareStatements(server.database(), BareStatements::Journal::Rollback)
        .fill(situation.radios, QDateTime::currentSecsSinceEpoch());
    server.start();
    RadioLoad radios(server.port());
    RadioOrder order(situation.radios, KnownRadios);
    // After a start every radio is unconfirmed until it registers.
    if (radios.registerEach(order, Window).lost() > 0) {
        fail(u"the server does not acknowledge"_s);
    }
    std::optional<Crowd> crowd;
    if (situation.kind) {
        crowd.emplace(*situation.kind, server.applicationPort(), situation.count);
    }
    const RadioLoad::Result result = load(situation, radios, crowd ? &*crowd : nullptr, order);
    if (result.acknowledged == 0 || (crowd && !crowd->isThere())) {
        fail(u"the server does not go on"_s);
    }
    table.put(Median, situation.name, percentile(result.milliseconds, 0.5), 1);
    table.put(Most, situation.name, percentile(result.milliseconds, 0.99), 1, Aim{Aim::AtMost, 50});
    table.put(Worst, situation.name, result.worstMilliseconds, 1);
    table.put(Lost, situation.name, result.lost(), 0, Aim{Aim::AtMost, 0});
    table.put(Stop, situation.name, server.stop(), 2, Aim{Aim::AtMost, 2});
    table.remark(situation.name, u"p99 50 ms, none lost, stop 2 s"_s);
}

RadioLoad::Result WaitingBench::load(const Situation &situation, RadioLoad &radios, Crowd *crowd,
                                     RadioOrder &order)
{
    const bool isCounted = situation.kind == Crowd::Kind::ComeAndGo;
    QElapsedTimer timer;
    timer.start();
    return radios.steady(order, PerSecond, [&] {
        return isCounted ? !crowd->hasCounted() && crowd->isThere() : !timer.hasExpired(period.count());
    });
}

void measureAt(const QString &name, const QString &folder, bool isQuick)
{
    const int passing = isQuick ? 2000 : 50'000;
    const uint32_t large = isQuick ? 100'000 : 1'000'000;
    WaitingBench bench(folder, isQuick ? std::chrono::seconds(2) : std::chrono::seconds(10));

    using Kind = Crowd::Kind;
    const auto number = [](auto value) { return Table::grouped(static_cast<uint32_t>(value)); };
    bench.measure({u"Nobody"_s});
    bench.measure({u"100 send 50 bytes a second"_s, Kind::Trickle, 100});
    bench.measure({u"100 send messages without a pause"_s, Kind::Flood, 100});
    bench.measure({u"100 send rubbish without a pause"_s, Kind::Rubbish, 100});
    bench.measure({u"%1 connect and leave"_s.arg(number(passing)), Kind::ComeAndGo, passing});
    bench.measure({u"Nobody, %1 radios"_s.arg(number(large)), {}, 0, large});
    bench.measure({u"10 take %1 radios slowly"_s.arg(number(large)), Kind::TakeSlowly, 10, large});
    std::printf("\nDatabase in %s: %s\n", qPrintable(name), qPrintable(folder));
    bench.print();
}

void measure(QStringList arguments)
{
    const bool isQuick = arguments.removeAll(u"--quick"_s) > 0;
    const QString disk = QDir(arguments.value(0, u"."_s)).absolutePath();
    std::printf(
        "%u registrations a second, from sending to acknowledgement, while applications ask for much; then "
        "a stop\n%u processors. Where there are two, the server has one of them; the radios and, below all "
        "others in priority,\nthe applications share what is left. So these ask for less than they could, "
        "and what delays the radios'\nown process is in the figures.\n",
        PerSecond, std::thread::hardware_concurrency());
    measureAt(u"memory"_s, u"/dev/shm"_s, isQuick);
    measureAt(u"disk"_s, disk, isQuick);
}

} // namespace

int main(int argc, char **argv)
{
    return benchMain(argc, argv, measure, Crowd::isAsked, Crowd::be);
}
