// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/commandline.h"

#include "tools/optionreader.h"

#include <limits>

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

constexpr qint64 ReportPatience = 2000; // ms

const auto Help =
    u"Usage: quillmere-watch [options]\n"
    "       quillmere-watch report ESN HOST [options]\n"
    "\n"
    "Follows the radios of a server, as its applications do; or reports that a radio cannot be\n"
    "reached at an address, and waits until the server holds it for unconfirmed.\n"
    "\n"
    "Options:\n"
    "  --server HOST[:PORT]     the server's application port (127.0.0.1:9361)\n"
    "  --json                   one JSON object a line\n"
    "  --table                  a live table of all radios, where \"?\" names the keys; plain text at the\n"
    "                           end where standard output is not a terminal\n"
    "  --count N                end after so many notices\n"
    "  --for SECONDS            end after so long (report: 2)\n"
    "  --help                   show this\n"
    "  --version                show the version\n"
    "\n"
    "Exit codes: 0 done, 1 the server was not reached, 2 wrong usage, 3 the time was over before\n"
    "the notices had come (report: before the radio was unconfirmed)."_s;

} // namespace

CommandLine parse(const QStringList &arguments)
{
    Console::OptionReader options(u"quillmere-watch"_s);
    options.value(u"server"_s, u"server"_s, QString());
    options.flag(u"json"_s, QString());
    options.flag(u"table"_s, QString());
    options.value(u"count"_s, u"count"_s, QString());
    options.value(u"for"_s, u"seconds"_s, QString());
    if (const auto instead =
            Console::parseOptions<Settings>(options, arguments, Help, Console::OptionReader::TakesWords)) {
        return *instead;
    }

    Settings settings;
    options.read(
        u"server"_s, [](const QString &text) { return Console::parseEndpoint(text); },
        [&settings](const Console::Endpoint &server) { settings.server = server; });
    options.require(!options.isSet(u"json"_s) || !options.isSet(u"table"_s),
                    u"--json and --table exclude each other"_s);
    if (options.isSet(u"json"_s)) {
        settings.output = Output::Json;
    } else if (options.isSet(u"table"_s)) {
        settings.output = Output::Table;
    }
    options.read(
        u"count"_s,
        [](const QString &text) { return Console::parseNumber(text, 1, std::numeric_limits<qint64>::max()); },
        [&settings](quint64 count) { settings.count = count; });
    options.read(u"for"_s, Console::parseSeconds,
                 [&settings](qint64 duration) { settings.duration = duration; });
    if (!options.error().isEmpty()) {
        return CommandLine::error(options.error());
    }

    const QStringList words = options.words();
    if (words.isEmpty()) {
        return CommandLine::run(settings);
    }
    if (words[0] != u"report") {
        return CommandLine::error(u"unknown command '%1'"_s.arg(words[0]));
    }
    if (words.size() != 3) {
        return CommandLine::error(u"report needs an ESN and an address"_s);
    }
    if (settings.count > 0 || settings.output == Output::Table) {
        return CommandLine::error(u"report takes neither --count nor --table"_s);
    }
    const auto esn = Console::parseEsn(words[1]);
    if (!esn) {
        return CommandLine::error(esn.error);
    }
    const auto host = Console::parseHost(words[2]);
    if (!host) {
        return CommandLine::error(host.error);
    }
    const auto address = Console::resolve(*host);
    if (!address) {
        return CommandLine::failure(address.error);
    }
    settings.report = Settings::Report{*esn, *address};
    if (settings.duration == 0) {
        settings.duration = ReportPatience;
    }
    return CommandLine::run(settings);
}

} // namespace WatchTool
