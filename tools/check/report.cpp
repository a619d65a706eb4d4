// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/report.h"

#include <QJsonArray>
#include <QStringList>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

constexpr std::array Gravest{State::Critical, State::Warning, State::Unknown};

QString nameOf(State state)
{
    constexpr std::array Names{"ok", "warning", "critical", "unknown"};
    return QLatin1String(Names[static_cast<size_t>(state)]);
}

// One line, and without the sign behind which monitoring systems look for figures.
QString asLine(const QString &text)
{
    QString line = text;
    for (QChar &character : line) {
        if (character.category() == QChar::Other_Control) {
            character = u' ';
        }
    }
    return line.replace(u'|', u'/');
}

qsizetype countOf(const Findings &findings, State state)
{
    return std::count_if(findings.begin(), findings.end(),
                         [state](const Finding &finding) { return finding.state == state; });
}

} // namespace

State Report::state() const
{
    const auto *const found = std::find_if(Gravest.begin(), Gravest.end(),
                                           [this](State state) { return countOf(findings, state) > 0; });
    return found == Gravest.end() ? State::Ok : *found;
}

QString Report::text() const
{
    const State gravest = state();
    QString summary = u"all is well"_s;
    if (gravest != State::Ok) {
        const auto worst = std::find_if(findings.begin(), findings.end(), [gravest](const Finding &finding) {
            return finding.state == gravest;
        });
        summary = worst->subject + u": "_s + worst->text;
        const qsizetype others = findings.size() - countOf(findings, State::Ok) - 1;
        if (others > 0) {
            summary += u" (and %1 more)"_s.arg(others);
        }
    }
    QStringList figures;
    if (snapshot) {
        figures += u"radios=%1"_s.arg(snapshot->radios);
        figures += u"pending=%1"_s.arg(snapshot->pending);
    }
    if (rows) {
        figures += u"rows=%1"_s.arg(*rows);
    }
    QStringList lines{u"QUILLMERE %1 - %2"_s.arg(nameOf(gravest).toUpper(), asLine(summary))};
    if (!figures.isEmpty()) {
        lines[0] += u" | "_s + figures.join(u' ');
    }
    for (const auto &[subject, state, text] : findings) {
        lines += u"%1 %2: %3"_s.arg(nameOf(state).leftJustified(8), subject, asLine(text));
    }
    return lines.join(u'\n');
}

QJsonObject Report::json() const
{
    QJsonArray list;
    for (const auto &[subject, state, text] : findings) {
        list += QJsonObject{{u"subject"_s, subject}, {u"state"_s, nameOf(state)}, {u"text"_s, text}};
    }
    QJsonObject object{{u"state"_s, nameOf(state())}, {u"findings"_s, list}};
    if (snapshot) {
        object.insert(u"radios"_s, snapshot->radios);
        object.insert(u"pending"_s, snapshot->pending);
    }
    if (rows) {
        object.insert(u"rows"_s, *rows);
    }
    return object;
}

} // namespace CheckTool
