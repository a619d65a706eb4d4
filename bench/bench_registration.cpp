// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What one registration costs in tables of 1,000, 100,000 and 1,000,000 radios, beside what its statements
// alone cost SQLite at that size. The databases lie in a memory file system.
#include "bench/barestatements.h"
#include "bench/silentlog.h"
#include "core/quillmere.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>

namespace {

constexpr quint16 NobodyListens = 9; // acknowledgements go to the discard port on loopback

QTemporaryDir *folder = nullptr;

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

QMR::Esn esnOf(uint32_t radio)
{
    return QMR::Esn{BareStatements::esn(radio)};
}

QString dataFolder(const char *name, int64_t radios)
{
    const QString path = folder->filePath(QString::fromLatin1(name) + QString::number(radios));
    QDir().mkpath(path + QStringLiteral("/Brackwater/Quill Mere"));
    return path;
}

QString databaseFile(const QString &dataFolder)
{
    return dataFolder + QStringLiteral("/Brackwater/Quill Mere/qmr.db");
}

// A server that runs on a table of this many radios, all in contact.
class Fixture
{
public:
    explicit Fixture(int64_t radios)
    {
        const QString data = dataFolder("server", radios);
        qputenv("QUILLMERE_APPDATA", QFile::encodeName(data));
        QFile configuration(data + QStringLiteral("/Brackwater/Quill Mere/qmr.cfg"));
        if (!configuration.open(QIODevice::WriteOnly)) {
            qFatal("cannot write the configuration");
        }
        configuration.write("radioRegistrationPort=0\napplicationPort=0\n");
        configuration.close();
        BareStatements(databaseFile(data)).fill(static_cast<uint32_t>(radios), now());
        server.start();
        for (const auto &[esn, radio] : server.radios()) {
            server.unscheduleDiscovery(radio);
            radio->availability = QMR::Registered;
        }
    }
    ~Fixture()
    {
        server.stop();
        QFile::remove(databaseFile(QFile::decodeName(qgetenv("QUILLMERE_APPDATA"))));
    }
    Q_DISABLE_COPY_MOVE(Fixture)

    // Kept from one run to the next of the same size: filling it takes longer than measuring.
    static Fixture &of(int64_t radios)
    {
        static int64_t size = 0;
        if (size != radios) {
            kept.reset();
            kept = std::make_unique<Fixture>(radios);
            size = radios;
        }
        return *kept;
    }

    static void release() { kept.reset(); }

    void registerRadio(uint32_t radio)
    {
        server.registerRadio(esnOf(radio), 3, suid, QHostAddress(BareStatements::address(radio)),
                             NobodyListens, false, services);
    }
    void deregisterRadio(uint32_t radio)
    {
        server.deregisterRadio(esnOf(radio), QHostAddress(BareStatements::address(radio)));
    }

private:
    static inline std::unique_ptr<Fixture> kept;

    char program[6] = "bench";
    char *arguments[2] = {program, nullptr};
    const QMR::Suid suid{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};
    const QMR::ServiceList services{1, 3};
    QMR::Quillmere server{1, arguments};
};

// The same radios in a database with no server around it.
BareStatements &databaseAlone(int64_t radios)
{
    static std::unique_ptr<BareStatements> kept;
    static int64_t size = 0;
    if (size != radios) {
        const QString file = databaseFile(dataFolder("bare", radios));
        QFile::remove(file);
        kept = std::make_unique<BareStatements>(file);
        kept->fill(static_cast<uint32_t>(radios), now());
        size = radios;
    }
    return *kept;
}

class AnyRadio
{
public:
    explicit AnyRadio(int64_t radios) : any(0, static_cast<uint32_t>(radios) - 1) {}
    uint32_t next() { return any(random); }

private:
    std::mt19937 random{1};
    std::uniform_int_distribution<uint32_t> any;
};

// A radio of the table registers again.
void knownRadio(benchmark::State &state)
{
    Fixture &fixture = Fixture::of(state.range(0));
    AnyRadio radio(state.range(0));
    for (auto _ : state) {
        fixture.registerRadio(radio.next());
    }
}

void knownRadioDatabaseAlone(benchmark::State &state)
{
    BareStatements &database = databaseAlone(state.range(0));
    AnyRadio radio(state.range(0));
    for (auto _ : state) {
        database.update(radio.next(), now());
    }
}

// A radio comes that is not in the table, and leaves again, so that the table keeps its size.
void newRadio(benchmark::State &state)
{
    Fixture &fixture = Fixture::of(state.range(0));
    auto radio = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        fixture.registerRadio(++radio);
        fixture.deregisterRadio(radio);
    }
}

void newRadioDatabaseAlone(benchmark::State &state)
{
    BareStatements &database = databaseAlone(state.range(0));
    auto radio = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        database.insert(++radio, now());
        database.remove(radio);
    }
}

// Prints the usual lines, and keeps each result for the summary.
class Collector : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.aggregate_name == "median") {
                microseconds[run.run_name.function_name][std::stoll(run.run_name.args)] =
                    run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void summarise(const char *title, const std::string &whole, const std::string &alone)
    {
        std::printf("\n%s, median microseconds\n%12s %14s %16s %12s %22s\n", title, "radios", "registration",
                    "database alone", "the rest", "against 1,000 radios *");
        const auto &all = microseconds[whole];
        const auto &database = microseconds[alone];
        for (const auto &[radios, time] : all) {
            const double growth = database.at(radios) - database.at(1000);
            std::printf("%12lld %14.1f %16.1f %12.1f %22.2f\n", static_cast<long long>(radios), time,
                        database.at(radios), time - database.at(radios), (time - growth) / all.at(1000));
        }
    }

private:
    std::map<std::string, std::map<int64_t, double>> microseconds;
};

// In this order, so that each table is filled once: all benchmarks of one size come before those of the next.
void registerBenchmarks()
{
    for (const int64_t radios : {1000, 100000, 1000000}) {
        const auto add = [radios](const char *name, void (*function)(benchmark::State &)) {
            benchmark::RegisterBenchmark(name, function)
                ->Arg(radios)
                ->Unit(benchmark::kMicrosecond)
                ->Repetitions(5)
                ->ReportAggregatesOnly()
                ->UseRealTime();
        };
        add("knownRadio", knownRadio);
        add("newRadio", newRadio);
        add("knownRadioDatabaseAlone", knownRadioDatabaseAlone);
        add("newRadioDatabaseAlone", newRadioDatabaseAlone);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    QTemporaryDir memory(QStringLiteral("/dev/shm/quillmere-bench-XXXXXX"));
    if (!memory.isValid()) {
        std::fprintf(stderr, "no memory file system at /dev/shm\n");
        return 1;
    }
    folder = &memory;
    silenceLog();
    registerBenchmarks();
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    Fixture::release();
    folder = nullptr;
    collector.summarise("A known radio registers again", "knownRadio", "knownRadioDatabaseAlone");
    collector.summarise("A new radio registers and leaves", "newRadio", "newRadioDatabaseAlone");
    std::printf("\n* with the growth of the database alone taken off; to stay at or under 1.5\n");
    return 0;
}
