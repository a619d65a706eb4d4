// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/columns.h"

#include "tools/follow/format.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

constexpr int MarkWidth = 2;
constexpr int EsnDigits = 16;
constexpr int FewestEsnDigits = 2; // with fewer it says nothing
constexpr int EsnWidth = EsnDigits + 1;
constexpr int SuidWidth = 18;
constexpr int AddressWidth = 16;
constexpr int LongestState = 11; // "unreachable"
constexpr int StateWidth = LongestState + 1;
constexpr int AgeWidth = 8;

// The widths from which on there is room for one more column.
constexpr int WidthWithMark = MarkWidth + LongestState;
constexpr int WidthWithEsn = WidthWithMark + EsnWidth;
constexpr int WidthWithAge = WidthWithEsn + AgeWidth;
constexpr int WidthWithAddress = WidthWithAge + AddressWidth;
constexpr int WidthWithSuid = WidthWithAddress + SuidWidth;

constexpr QChar Cut = u'~'; // where something is missing

// SGR codes: registered green, pending cyan, unconfirmed yellow, unreachable red, others dim.
QString colourOf(RadioState state)
{
    switch (state) {
    case RadioState::Registered:
        return u"32"_s;
    case RadioState::Pending:
        return u"36"_s;
    case RadioState::Unconfirmed:
        return u"33"_s;
    case RadioState::Unreachable:
        return u"31"_s;
    default:
        return u"2"_s;
    }
}

} // namespace

struct Columns::Texts
{
    QChar mark;
    QString esn;
    QString suid;
    QString address;
    QString state;
    QString age;
    QString services;
};

QString ageText(qint64 milliseconds)
{
    const qint64 seconds = milliseconds / 1000;
    if (seconds < 60) {
        return QString::number(seconds) + u" s";
    }
    if (seconds < 3600) {
        return QString::number(seconds / 60) + u" min";
    }
    if (seconds < 86400) {
        return QString::number(seconds / 3600) + u" h";
    }
    return QString::number(seconds / 86400) + u" d";
}

Columns::Columns(int newWidth) : width(std::max(newWidth, 1))
{
    const int digits = std::min(EsnDigits, width - WidthWithMark - 1);
    esnDigits = digits < FewestEsnDigits ? 0 : digits;
    hasMark = width >= WidthWithMark;
    hasAge = width >= WidthWithAge;
    hasAddress = width >= WidthWithAddress;
    hasSuid = width >= WidthWithSuid;
}

Columns Columns::plain()
{
    Columns columns;
    columns.esnDigits = EsnDigits;
    columns.hasMark = columns.hasAddress = columns.hasSuid = true;
    return columns;
}

QString Columns::heading() const
{
    return line(
        {u' ', u"ESN"_s, u"WACN/SYSTEM/UNIT"_s, u"ADDRESS"_s, u"STATE"_s, u"CHANGED"_s, u"SERVICES"_s},
        QString());
}

QString Columns::row(const TableRadio &radio, bool isLast, qint64 now, bool coloured) const
{
    const QMR::Qmra::RadioNotice &notice = radio.notice;
    QString esn = notice.esn.text();
    if (esnDigits < EsnDigits) {
        esn = Cut + esn.right(esnDigits - 1); // radios differ at the end
    }
    return line({isLast ? u'>' : u' ', esn, Follow::suidText(notice.suid),
                 Follow::addressText(notice.address), Follow::stateName(notice),
                 radio.changed ? ageText(now - *radio.changed) : u"-"_s,
                 Follow::servicesText(notice.services)},
                coloured ? colourOf(stateOf(notice)) : QString());
}

QString Columns::line(const Texts &texts, const QString &colour) const
{
    QString text;
    if (hasMark) {
        text += QString(texts.mark).leftJustified(MarkWidth);
    }
    if (esnDigits > 0) {
        text += texts.esn.left(esnDigits).leftJustified(esnDigits + 1);
    }
    if (hasSuid) {
        text += texts.suid.leftJustified(SuidWidth);
    }
    if (hasAddress) {
        text += texts.address.leftJustified(AddressWidth);
    }
    const qsizetype state = text.size();
    text += texts.state.leftJustified(StateWidth);
    if (hasAge) {
        text += texts.age.leftJustified(AgeWidth);
    }
    if (hasSuid) {
        text += texts.services;
    }
    if (width > 0 && text.size() > width) {
        const bool isServicesCut = width > WidthWithSuid;
        text = isServicesCut ? text.left(width - 1) + Cut : text.left(width);
    }
    if (!colour.isEmpty()) {
        const qsizetype end = std::min(text.size(), state + StateWidth);
        text.insert(end, u"\033[0m"_s).insert(state, u"\033[" + colour + u'm');
    }
    return text;
}

} // namespace WatchTool
