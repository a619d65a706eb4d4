// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/optionreader.h"

using namespace Qt::StringLiterals;

namespace Console {

namespace {

// Stands for the value that was left out; no option accepts it.
const auto NoValue = u"\u0001"_s;

} // namespace

// NOLINTNEXTLINE(modernize-pass-by-value): copied once in a run
OptionReader::OptionReader(const QString &newUsage) : usage(newUsage)
{
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    flag(u"help"_s, u"Show this."_s);
}

void OptionReader::flag(const QString &name, const QString &description)
{
    parser.addOption({name, description});
}

void OptionReader::value(const QString &name, const QString &valueName, const QString &description)
{
    parser.addOption({name, description, valueName});
}

void OptionReader::optionalValue(const QString &name, const QString &valueName, const QString &description)
{
    value(name, u'[' + valueName + u']', description);
    withOptionalValue.append(name);
}

bool OptionReader::parse(QStringList arguments, Words words)
{
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const bool alone = i + 1 == arguments.size() || arguments[i + 1].startsWith(u"--");
        if (alone && arguments[i].startsWith(u"--") && withOptionalValue.contains(arguments[i].mid(2))) {
            arguments[i] += u'=' + NoValue;
        }
    }
    if (!parser.parse(QStringList(usage) + arguments)) {
        require(false, parser.errorText());
    } else if (words == NoWords && !parser.positionalArguments().isEmpty()) {
        require(false, u"unexpected argument '%1'"_s.arg(parser.positionalArguments().constFirst()));
    }
    return firstError.isEmpty();
}

QString OptionReader::helpText() const
{
    const QString text = parser.helpText(); // its first line names the program as it was called
    return u"Usage: %1 [options]\n"_s.arg(usage) + text.mid(text.indexOf(u'\n') + 1).trimmed();
}

void OptionReader::require(bool condition, const QString &otherwise)
{
    if (!condition && firstError.isEmpty()) {
        firstError = otherwise;
    }
}

QString OptionReader::onlyValue(const QString &name)
{
    const QStringList values = isSet(name) ? parser.values(name) : QStringList();
    require(values.size() <= 1, u"--%1 is given more than once"_s.arg(name));
    return values.size() == 1 && values.first() != NoValue ? values.first() : QString();
}

} // namespace Console
