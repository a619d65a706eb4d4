// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/commandline.h"

#include "tools/optionreader.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

const auto Help =
    u"Usage: quillmere-monitor [options]\n"
    "\n"
    "Follows the radios of one or several servers, as their applications do, and shows them over HTTP:\n"
    "a live page, metrics for Prometheus at /metrics, JSON at /api/radios and /api/events, and whether\n"
    "all servers are there at /healthz.\n"
    "\n"
    "Options:\n"
    "  --server HOST[:PORT]     a server's application port (127.0.0.1:9361); may be given again\n"
    "  --listen ADDRESS[:PORT]  where to serve (127.0.0.1:9362)\n"
    "  --allow ADDRESS[/BITS]   serve this address or network only; may be given again\n"
    "  --login FILE             ask for a login: a file with a line NAME:PASSWORD for each user\n"
    "  --help                   show this\n"
    "  --version                show the version\n"
    "\n"
    "Exit codes: 0 ended by Ctrl-C, 1 it cannot listen, or the file cannot be read, 2 wrong usage."_s;

} // namespace

CommandLine parse(const QStringList &arguments)
{
    Console::OptionReader options(u"quillmere-monitor"_s);
    options.value(u"server"_s, u"server"_s, QString());
    options.value(u"listen"_s, u"listen"_s, QString());
    options.value(u"allow"_s, u"allow"_s, QString());
    options.value(u"login"_s, u"login"_s, QString());
    if (const auto instead = Console::parseOptions<Settings>(options, arguments, Help)) {
        return *instead;
    }

    Settings settings;
    options.readEach(
        u"server"_s, [](const QString &text) { return Console::parseEndpoint(text); },
        [&](const Console::Endpoint &server) {
            const bool isNew =
                std::none_of(settings.servers.cbegin(), settings.servers.cend(),
                             [&server](const auto &other) { return other.text() == server.text(); });
            options.require(isNew, u"--server: '%1' is given more than once"_s.arg(server.text()));
            settings.servers.append(server);
        });
    options.readEach(u"allow"_s, Access::parseNetwork,
                     [&settings](const Access::Network &network) { settings.networks.append(network); });
    options.read(
        u"listen"_s,
        [](const QString &text) {
            const auto endpoint = Console::parseEndpoint(text, DefaultListenPort);
            return !endpoint || endpoint.value->name.isEmpty()
                       ? endpoint
                       : Console::Parsed<Console::Endpoint>::failed(
                             u"'%1' is no IPv4 address"_s.arg(endpoint.value->name));
        },
        [&settings](const Console::Endpoint &endpoint) {
            settings.address = endpoint.address;
            settings.port = endpoint.port;
        });
    options.read(
        u"login"_s, [](const QString &text) { return Console::Parsed<QString>::of(text); },
        [&settings](const QString &file) { settings.loginFile = file; });
    options.require(!options.isSet(u"login"_s) || !settings.loginFile.isEmpty(),
                    u"--login: no file is named"_s);
    if (!options.error().isEmpty()) {
        return CommandLine::error(options.error());
    }
    if (settings.servers.isEmpty()) {
        settings.servers.append({QHostAddress(QHostAddress::LocalHost), Console::DefaultPort});
    }
    return CommandLine::run(settings);
}

} // namespace Monitor
