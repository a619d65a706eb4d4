// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/commandline.h"

#include "tools/optionreader.h"

#include <QtEndian>

#include <algorithm>
#include <limits>

using namespace Qt::StringLiterals;

namespace RadioTool {

namespace {

using Console::Parsed;

constexpr quint32 MaximumRadios = 1U << 24; // as many as there are unit numbers
constexpr quint32 MaximumAddresses = MaximumRadios;
constexpr quint32 MaximumWindow = 1U << 16;
constexpr quint32 FleetRetries = 3; // a datagram may be lost; who measures losses gives 0

const auto Help = u"Usage: quillmere-radio COMMAND [options]\n"
                  "\n"
                  "A P25 radio, or a fleet of them, as the server sees it.\n"
                  "\n"
                  "Commands:\n"
                  "  register    one radio registers, and may stay to answer discovery requests\n"
                  "  deregister  one radio deregisters, by its ESN or by its address\n"
                  "  listen      print what a server sends to a port\n"
                  "  fleet       many radios register at a steady rate\n"
                  "\n"
                  "'quillmere-radio COMMAND --help' shows a command's options.\n"
                  "\n"
                  "Exit codes: 0 all acknowledged, 1 error, 2 wrong usage, 3 some were not acknowledged."_s;

Parsed<QMR::ServiceList> parseServices(const QString &text)
{
    QMR::ServiceList services;
    for (const QString &code : text.split(u',')) {
        const Parsed<quint64> number = Console::parseNumber(code, 0, 255);
        if (!number) {
            return Parsed<QMR::ServiceList>::failed(
                u"'%1' is not a service code (0 to 255, with ',' between)"_s.arg(code));
        }
        services.push_back(static_cast<quint32>(*number));
    }
    if (services.size() > 255) {
        return Parsed<QMR::ServiceList>::failed(
            u"%1 services are too many (255 at most)"_s.arg(services.size()));
    }
    return Parsed<QMR::ServiceList>::of(services);
}

Parsed<double> parseRate(const QString &text)
{
    // At most a million a second: the reader of seconds has the same form, in thousandths.
    const Parsed<qint64> thousandths = Console::parseSeconds(text);
    if (!thousandths || *thousandths > 1'000'000'000) {
        return Parsed<double>::failed(u"'%1' is not a rate (0.001 to 1000000 a second)"_s.arg(text));
    }
    return Parsed<double>::of(static_cast<double>(*thousandths) / 1000);
}

struct AddressRange
{
    quint32 first = 0;
    quint32 count = 0;
};

Parsed<AddressRange> parseRange(const QString &text)
{
    const qsizetype dash = text.indexOf(u'-');
    const Parsed<QHostAddress> first = Console::parseAddress(text.left(dash));
    const Parsed<QHostAddress> last = dash < 0 ? first : Console::parseAddress(text.mid(dash + 1));
    if (!first || !last) {
        return Parsed<AddressRange>::failed(first ? last.error : first.error);
    }
    const qint64 count = qint64{(*last).toIPv4Address()} - (*first).toIPv4Address() + 1;
    if (count < 1) {
        return Parsed<AddressRange>::failed(u"'%1' ends before it begins"_s.arg(text));
    }
    if (count > MaximumAddresses) {
        return Parsed<AddressRange>::failed(
            u"'%1' has %2 addresses (%3 at most)"_s.arg(text).arg(count).arg(MaximumAddresses));
    }
    return Parsed<AddressRange>::of({(*first).toIPv4Address(), static_cast<quint32>(count)});
}

// For the value of a number option.
template<class Number>
auto within(quint64 minimum, quint64 maximum, Number &target)
{
    return [minimum, maximum, &target](const QString &text) {
        const Parsed<quint64> number = Console::parseNumber(text, minimum, maximum);
        if (number) {
            target = static_cast<Number>(*number);
        }
        return number;
    };
}

class Reader
{
public:
    Reader(Command command, const QString &name) : options(u"quillmere-radio "_s + name)
    {
        settings.command = command;
    }

    CommandLine read(const QStringList &arguments)
    {
        declare();
        if (!options.parse(arguments)) {
            return CommandLine::error(options.error());
        }
        if (options.isSet(u"help"_s)) {
            return CommandLine::print(options.helpText());
        }
        readValues();
        checkTogether();
        if (!options.error().isEmpty()) {
            return CommandLine::error(options.error());
        }
        lookUpHosts();
        if (!options.error().isEmpty()) {
            return CommandLine::failure(options.error());
        }
        return CommandLine::run(settings);
    }

private:
    bool is(Command command) const { return settings.command == command; }
    void declare();
    void readValues();
    void readFleet();
    void checkTogether();
    void lookUpHosts();
    void checkRegistration();
    void checkFleet();

    Console::OptionReader options;
    Settings settings;
};

void Reader::declare()
{
    const bool registers = is(Command::Register) || is(Command::Fleet);
    const bool fleet = is(Command::Fleet);
    options.flag(u"json"_s, u"One JSON object a line instead of readable lines."_s);
    if (!is(Command::Listen)) {
        options.value(u"server"_s, u"HOST[:PORT]"_s, u"The server (127.0.0.1:9361)."_s);
        options.value(u"esn"_s, u"ESN"_s,
                      fleet ? u"The first radio's ESN; each next has one more (0000000000000001)."_s
                            : u"16 hexadecimal digits; ':' between bytes is allowed."_s);
        options.value(u"protocol"_s, u"VERSION"_s, u"Protocol version, 1 to 3 (3; 1 with --basic)."_s);
    }
    if (!fleet) {
        options.value(u"from"_s, u"HOST"_s,
                      is(Command::Listen) ? u"The address to listen at (all)."_s
                                          : u"The radio's own address (as the system chooses)."_s);
    }
    if (registers) {
        options.value(
            u"suid"_s, u"WACN.SYSTEM.UNIT"_s,
            fleet ? u"The first radio's SUID; each next unit has one more (1.1.1)."_s
                  : u"Hexadecimal, as in 12345.678.9ABCDE; without --esn the server makes one of it."_s);
        options.value(u"services"_s, u"CODES"_s, u"Data services, 0 to 255, with ',' between (none)."_s);
        options.flag(u"basic"_s, u"Basic registration: no SUID, never pending."_s);
        options.value(u"timeout"_s, u"MS"_s, u"How long to wait for an acknowledgement (2000)."_s);
        options.value(u"retries"_s, u"N"_s,
                      fleet ? u"How often to repeat what was not acknowledged (3)."_s
                            : u"How often to repeat what was not acknowledged (0)."_s);
    }
    if (is(Command::Deregister)) {
        options.flag(u"by-address"_s, u"Deregister whichever radio is at this address; in place of --esn."_s);
    }
    if (is(Command::Register)) {
        options.flag(u"pending"_s, u"Pending registration (protocol 3); it lapses after 17 s."_s);
    }
    if (is(Command::Register) || is(Command::Listen)) {
        options.optionalValue(
            u"stay"_s, u"SECONDS"_s,
            is(Command::Listen)
                ? u"How long to listen (until interrupted)."_s
                : u"Stay, for a time or until interrupted, and register again at each discovery request."_s);
        options.value(u"listen-port"_s, u"PORT"_s,
                      is(Command::Listen)
                          ? u"The port to listen at (9361)."_s
                          : u"Where discovery requests arrive (the server's port, where it can be had)."_s);
    }
    if (is(Command::Listen)) {
        options.value(u"count"_s, u"N"_s,
                      u"End after so many messages; exit code 3 when --stay ends first."_s);
    }
    if (fleet) {
        options.value(u"count"_s, u"N"_s, u"Radios (one an address)."_s);
        options.value(u"rate"_s, u"R"_s, u"Registrations a second (1000)."_s);
        options.value(u"addresses"_s, u"FIRST[-LAST]"_s,
                      u"The radios' own addresses (one, as the system chooses)."_s);
        options.value(u"rounds"_s, u"N"_s,
                      u"How often each radio registers (1; any number with --duration)."_s);
        options.value(u"duration"_s, u"SECONDS"_s, u"Stop registering after so long."_s);
        options.value(u"window"_s, u"N"_s,
                      u"Most registrations that wait for an acknowledgement at once (1000)."_s);
        options.value(u"pending"_s, u"PERCENT"_s,
                      u"Share of the radios whose registrations are pending (0)."_s);
        options.flag(u"deregister"_s, u"Deregister all of them at the end."_s);
        options.flag(
            u"share-addresses"_s,
            u"Allow more radios than addresses; the server lets each address go to its latest radio."_s);
    }
}

void Reader::readValues()
{
    const auto store = [](auto &target) { return [&target](const auto &value) { target = value; }; };
    const auto ignore = [](const auto &) {};
    if (is(Command::Fleet)) {
        settings.radio.esn.bytes.back() = 1;
        settings.radio.suid = *Console::parseSuid(u"1.1.1"_s);
        settings.retries = FleetRetries;
        readFleet();
    }
    settings.json = options.isSet(u"json"_s);
    settings.radio.basic = options.isSet(u"basic"_s);
    settings.radio.pending = is(Command::Register) && options.isSet(u"pending"_s);
    settings.radio.protocolVersion = settings.radio.basic ? 1 : 3;
    options.read(
        u"server"_s, [](const QString &text) { return Console::parseEndpoint(text); },
        store(settings.server));
    options.read(u"esn"_s, Console::parseEsn, store(settings.radio.esn));
    options.read(u"suid"_s, Console::parseSuid, store(settings.radio.suid));
    options.read(u"services"_s, parseServices, store(settings.radio.services));
    options.read(u"protocol"_s, within(1, 3, settings.radio.protocolVersion), ignore);
    options.read(u"from"_s, Console::parseHost,
                 [this](const QString &host) { settings.from = Console::parseAddress(host).value; });
    options.read(u"listen-port"_s, Console::parsePort, store(settings.listenPort));
    options.read(u"timeout"_s, within(1, 3'600'000, settings.timeout), ignore);
    options.read(u"retries"_s, within(0, 100, settings.retries), ignore);
    settings.stay = options.isSet(u"stay"_s) || is(Command::Listen);
    options.read(u"stay"_s, Console::parseSeconds, store(settings.stayTime));
    if (is(Command::Listen)) {
        settings.listenPort = settings.listenPort.value_or(Console::DefaultPort);
        options.read(u"count"_s, within(1, std::numeric_limits<quint32>::max(), settings.messages), ignore);
    }
}

void Reader::readFleet()
{
    FleetSettings &fleet = settings.fleet;
    const auto ignore = [](const auto &) {};
    options.read(u"addresses"_s, parseRange, [&fleet](const AddressRange &range) {
        fleet.firstAddress = range.first;
        fleet.addressCount = range.count;
    });
    fleet.count = std::max<quint32>(fleet.addressCount, 1);
    options.read(u"count"_s, within(1, MaximumRadios, fleet.count), ignore);
    options.read(u"rate"_s, parseRate, [&fleet](double rate) { fleet.rate = rate; });
    options.read(u"duration"_s, Console::parseSeconds, [&fleet](qint64 time) {
        fleet.duration = time;
        fleet.rounds = 0;
    });
    options.read(u"rounds"_s, within(1, std::numeric_limits<quint32>::max(), fleet.rounds), ignore);
    options.read(u"window"_s, within(1, MaximumWindow, fleet.window), ignore);
    options.read(u"pending"_s, within(0, 100, fleet.pendingPercent), ignore);
    fleet.deregister = options.isSet(u"deregister"_s);
}

void Reader::checkTogether()
{
    if (is(Command::Register) || is(Command::Fleet)) {
        checkRegistration();
    }
    if (is(Command::Fleet)) {
        checkFleet();
    }
    if (is(Command::Deregister)) {
        options.require(options.isSet(u"esn"_s) != options.isSet(u"by-address"_s),
                        u"deregister needs either --esn or --by-address"_s);
        options.require(options.isSet(u"by-address"_s) || !settings.radio.esn.isZero(),
                        u"--esn: an ESN of zeros stands for none; use --by-address"_s);
    }
    options.require(settings.server.address != QHostAddress(QHostAddress::AnyIPv4),
                    u"--server: 0.0.0.0 is not an address of a server"_s);
    options.require(is(Command::Listen) || settings.from != QHostAddress(QHostAddress::AnyIPv4),
                    u"--from: 0.0.0.0 is not an address of a radio"_s);
    options.require(is(Command::Listen) || settings.stay || !settings.listenPort,
                    u"--listen-port needs --stay"_s);
}

// Last of all: it may take long, and tells nothing about a command line that is wrong anyway.
void Reader::lookUpHosts()
{
    if (!settings.server.name.isEmpty()) {
        options.read(
            u"server"_s, [this](const QString &) { return Console::resolve(settings.server.name); },
            [this](const QHostAddress &address) { settings.server.address = address; });
    }
    options.read(u"from"_s, Console::resolve,
                 [this](const QHostAddress &address) { settings.from = address; });
}

void Reader::checkRegistration()
{
    const Identity &radio = settings.radio;
    const bool pending = radio.pending || settings.fleet.pendingPercent > 0;
    if (radio.basic) {
        options.require(is(Command::Fleet) || options.isSet(u"esn"_s), u"a basic registration needs --esn"_s);
        options.require(!options.isSet(u"suid"_s),
                        u"a basic registration carries no SUID; leave --suid out"_s);
        options.require(!pending, u"a basic registration cannot be pending"_s);
        return;
    }
    options.require(is(Command::Fleet) || options.isSet(u"suid"_s),
                    u"register needs --suid (or --basic and --esn)"_s);
    options.require(radio.protocolVersion >= 2, u"--protocol 1 has only basic registrations; add --basic"_s);
    options.require(!pending || radio.protocolVersion >= 3, u"--pending needs --protocol 3"_s);
}

void Reader::checkFleet()
{
    const FleetSettings &fleet = settings.fleet;
    const quint32 addresses = std::max<quint32>(fleet.addressCount, 1);
    const auto esn = qFromBigEndian<quint64>(settings.radio.esn.bytes.data());
    options.require(esn > 0, u"--esn: a fleet's first ESN cannot be zero"_s);
    options.require(esn <= std::numeric_limits<quint64>::max() - (fleet.count - 1),
                    u"--esn: there are not %1 ESNs from there on"_s.arg(fleet.count));
    options.require(settings.radio.basic || settings.radio.suid.unit() + (fleet.count - 1) < MaximumRadios,
                    u"--suid: there are not %1 unit numbers from there on"_s.arg(fleet.count));
    options.require(
        fleet.count <= addresses || options.isSet(u"share-addresses"_s),
        u"%1 radios need as many --addresses, not %2: the server keeps one radio an address (or give --share-addresses)"_s
            .arg(fleet.count)
            .arg(addresses));
}

} // namespace

CommandLine parse(const QStringList &arguments)
{
    if (arguments.isEmpty()) {
        return CommandLine::error(u"no command (register, deregister, listen or fleet)"_s);
    }
    const QString &name = arguments.first();
    if (name == u"--help" || name == u"-h" || name == u"help") {
        return CommandLine::print(Help);
    }
    if (name == u"--version" || name == u"-v") {
        return CommandLine::print(Console::versionText());
    }
    const QStringList names{u"register"_s, u"deregister"_s, u"listen"_s, u"fleet"_s}; // in Command's order
    const qsizetype index = names.indexOf(name);
    if (index < 0) {
        return CommandLine::error(
            u"'%1' is not a command (register, deregister, listen or fleet)"_s.arg(name));
    }
    return Reader(static_cast<Command>(index), name).read(arguments.mid(1));
}

} // namespace RadioTool
