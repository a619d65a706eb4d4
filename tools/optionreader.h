// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"

#include <QCommandLineParser>
#include <QStringList>

namespace Console {

// The options of a tool, or of one of its commands: declared, parsed, then read one by one. The first error
// is kept.
class OptionReader
{
public:
    // usage: the program, and its command where it has some. It has the flag --help.
    explicit OptionReader(const QString &usage);

    void flag(const QString &name, const QString &description);
    void value(const QString &name, const QString &valueName, const QString &description);
    // With or without a value.
    void optionalValue(const QString &name, const QString &valueName, const QString &description);

    // False: error() tells why. Words are arguments that belong to no option.
    enum Words { NoWords, TakesWords };
    bool parse(QStringList arguments, Words words = NoWords);
    QStringList words() const { return parser.positionalArguments(); }
    // False also for an option that this command has not got.
    bool isSet(const QString &name) const { return parser.optionNames().contains(name); }
    QString helpText() const;

    // Parses an option that was given with a value and applies the value.
    template<class Parser, class Apply>
    void read(const QString &name, const Parser &parse, const Apply &apply)
    {
        const QString text = onlyValue(name);
        if (text.isNull()) {
            return;
        }
        applyParsed(name, parse(text), apply);
    }

    // The same for one that may be given more than once: each value, in their order.
    template<class Parser, class Apply>
    void readEach(const QString &name, const Parser &parse, const Apply &apply)
    {
        for (const QString &text : isSet(name) ? parser.values(name) : QStringList()) {
            applyParsed(name, parse(text), apply);
        }
    }

    void require(bool condition, const QString &otherwise);
    QString error() const { return firstError; }

private:
    template<class Parsed, class Apply>
    void applyParsed(const QString &name, const Parsed &parsed, const Apply &apply)
    {
        if (parsed) {
            apply(*parsed);
        } else {
            require(false, u"--" + name + u": " + parsed.error);
        }
    }
    // Null when there is none to read.
    QString onlyValue(const QString &name);

    QString usage;
    QCommandLineParser parser;
    QStringList withOptionalValue;
    QString firstError;
};

} // namespace Console
