// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/commandline.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <limits>

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

constexpr qint64 ReportPatience = 2000; // ms

const auto Help =
    u"Usage: quillmere-watch [options]\n"
    "       quillmere-watch report ESN ADDRESS [options]\n"
    "\n"
    "Follows the radios of a server, as its applications do; or reports that a radio cannot be\n"
    "reached at an address, and waits until the server holds it for unconfirmed.\n"
    "\n"
    "Options:\n"
    "  --server ADDRESS[:PORT]  the server's application port (127.0.0.1:9361)\n"
    "  --json                   one JSON object a line\n"
    "  --table                  a live table of all radios; plain text at the end where standard\n"
    "                           output is not a terminal\n"
    "  --count N                end after so many notices\n"
    "  --for SECONDS            end after so long (report: 2)\n"
    "  --help                   show this\n"
    "  --version                show the version\n"
    "\n"
    "Exit codes: 0 done, 1 the server was not reached, 2 wrong usage, 3 the time was over before\n"
    "the notices had come (report: before the radio was unconfirmed)."_s;

CommandLine print(const QString &text)
{
    return {CommandLine::Kind::Print, {}, text};
}

CommandLine error(const QString &text)
{
    return {CommandLine::Kind::Error, {}, text};
}

} // namespace

CommandLine CommandLine::parse(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.addOptions({{u"server"_s, QString(), u"server"_s},
                       {u"json"_s, QString()},
                       {u"table"_s, QString()},
                       {u"count"_s, QString(), u"count"_s},
                       {u"for"_s, QString(), u"seconds"_s},
                       {u"help"_s, QString()},
                       {u"version"_s, QString()}});
    if (!parser.parse(QStringList(u"quillmere-watch"_s) + arguments)) {
        return error(parser.errorText());
    }
    if (parser.isSet(u"help"_s)) {
        return print(Help);
    }
    if (parser.isSet(u"version"_s)) {
        return print(QCoreApplication::applicationName() + u' ' + QCoreApplication::applicationVersion());
    }
    for (const QString &name : {u"server"_s, u"count"_s, u"for"_s}) {
        if (parser.values(name).size() > 1) {
            return error(u"--%1 is given more than once"_s.arg(name));
        }
    }

    Settings settings;
    if (parser.isSet(u"server"_s)) {
        const auto server = Console::parseEndpoint(parser.value(u"server"_s));
        if (!server) {
            return error(u"--server: "_s + server.error);
        }
        settings.server = *server;
    }
    if (parser.isSet(u"json"_s) && parser.isSet(u"table"_s)) {
        return error(u"--json and --table exclude each other"_s);
    }
    if (parser.isSet(u"json"_s)) {
        settings.output = Output::Json;
    } else if (parser.isSet(u"table"_s)) {
        settings.output = Output::Table;
    }
    if (parser.isSet(u"count"_s)) {
        const auto count =
            Console::parseNumber(parser.value(u"count"_s), 1, std::numeric_limits<qint64>::max());
        if (!count) {
            return error(u"--count: "_s + count.error);
        }
        settings.count = *count;
    }
    if (parser.isSet(u"for"_s)) {
        const auto duration = Console::parseSeconds(parser.value(u"for"_s));
        if (!duration) {
            return error(u"--for: "_s + duration.error);
        }
        settings.duration = *duration;
    }

    const QStringList words = parser.positionalArguments();
    if (words.isEmpty()) {
        return {Kind::Run, settings, QString()};
    }
    if (words[0] != u"report") {
        return error(u"unknown command '%1'"_s.arg(words[0]));
    }
    if (words.size() != 3) {
        return error(u"report needs an ESN and an address"_s);
    }
    if (settings.count > 0 || settings.output == Output::Table) {
        return error(u"report takes neither --count nor --table"_s);
    }
    const auto esn = Console::parseEsn(words[1]);
    const auto address = Console::parseAddress(words[2]);
    if (!esn || !address) {
        return error(esn ? address.error : esn.error);
    }
    settings.report = Settings::Report{*esn, *address};
    if (settings.duration == 0) {
        settings.duration = ReportPatience;
    }
    return {Kind::Run, settings, QString()};
}

} // namespace WatchTool
