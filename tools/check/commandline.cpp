// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/commandline.h"

#include "tools/optionreader.h"

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

const auto Help =
    u"Usage: quillmere-check [options]\n"
    "\n"
    "Looks at this machine's server: its configuration as the server will read it, its database,\n"
    "and, while it runs, its two ports and the radios that it tells applications of. Nothing is\n"
    "changed. The first line sums up, and is what a monitoring system shows.\n"
    "\n"
    "Options:\n"
    "  --folder FOLDER    where qmr.cfg and qmr.db lie (the service's data folder)\n"
    "  --account ACCOUNT  the service's (the folder's owner); Linux\n"
    "  --stopped          the server may be stopped: its ports are to be free then\n"
    "  --timeout SECONDS  how long to wait for each lock and answer (2)\n"
    "  --json             one JSON object\n"
    "  --help             show this\n"
    "  --version          show the version\n"
    "\n"
    "Exit codes: 0 all is well, 1 warning, 2 critical, 3 not known, or wrong usage."_s;

} // namespace

CommandLine parse(const QStringList &arguments)
{
    Console::OptionReader options(u"quillmere-check"_s);
    options.value(u"folder"_s, u"folder"_s, QString());
    options.value(u"account"_s, u"account"_s, QString());
    options.flag(u"stopped"_s, QString());
    options.value(u"timeout"_s, u"seconds"_s, QString());
    options.flag(u"json"_s, QString());
    if (const auto instead = Console::parseOptions<Settings>(options, arguments, Help)) {
        return *instead;
    }
    Settings settings;
    const auto name = [](const QString &text) {
        return text.isEmpty() ? Console::Parsed<QString>::failed(u"it is empty"_s)
                              : Console::Parsed<QString>::of(text);
    };
    options.read(u"folder"_s, name, [&settings](const QString &folder) { settings.folder = folder; });
    options.read(u"account"_s, name, [&settings](const QString &account) { settings.account = account; });
    options.read(u"timeout"_s, Console::parseSeconds, [&settings](qint64 milliseconds) {
        settings.timeout = std::chrono::milliseconds(milliseconds);
    });
    settings.mayBeStopped = options.isSet(u"stopped"_s);
    settings.asJson = options.isSet(u"json"_s);
    if (!options.error().isEmpty()) {
        return CommandLine::error(options.error());
    }
    return CommandLine::run(settings);
}

} // namespace CheckTool
