// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"
#include "tools/optionreader.h"

#include <QString>

#include <optional>

namespace Console {

// A tool's command line, understood: settings to run with, a text to print instead (help, version), wrong
// usage (an error), or a failure that no other usage would help with.
template<class Settings>
struct CommandLine
{
    enum class Kind { Run, Print, Error, Failure };

    Kind kind = Kind::Run;
    Settings settings;
    QString text;

    static CommandLine run(const Settings &settings) { return {Kind::Run, settings, QString()}; }
    static CommandLine print(const QString &text) { return {Kind::Print, {}, text}; }
    static CommandLine error(const QString &text) { return {Kind::Error, {}, text}; }
    static CommandLine failure(const QString &text) { return {Kind::Failure, {}, text}; }
};

// Parses the options of a tool, to which it adds --version: what there is instead of a run where they are
// wrong, or where help or the version is asked for.
template<class Settings>
std::optional<CommandLine<Settings>> parseOptions(OptionReader &options, const QStringList &arguments,
                                                  const QString &help,
                                                  OptionReader::Words words = OptionReader::NoWords)
{
    using Line = CommandLine<Settings>;
    options.flag(QStringLiteral("version"), QString());
    if (!options.parse(arguments, words)) {
        return Line::error(options.error());
    }
    if (options.isSet(QStringLiteral("help"))) {
        return Line::print(help);
    }
    if (options.isSet(QStringLiteral("version"))) {
        return Line::print(versionText());
    }
    return std::nullopt;
}

// Prints or reports what there is instead of a run, and returns the exit code; nothing where it is to run.
template<class Settings>
std::optional<int> answer(const CommandLine<Settings> &commandLine, int wrongUsage = ExitUsage)
{
    using Kind = typename CommandLine<Settings>::Kind;
    if (commandLine.kind == Kind::Print) {
        writeLine(commandLine.text);
        return ExitSuccess;
    }
    if (commandLine.kind == Kind::Failure) {
        writeError(commandLine.text);
        return ExitError;
    }
    if (commandLine.kind == Kind::Error) {
        writeError(commandLine.text);
        writeError(QStringLiteral("try --help"));
        return wrongUsage;
    }
    return std::nullopt;
}

} // namespace Console
