// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/radiotable.h"

#include "tools/follow/format.h"

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

constexpr int StateColumn = 53; // where the state begins
constexpr int StateWidth = 12;

QString row(QChar mark, const QString &esn, const QString &suid, const QString &address, const QString &state,
            const QString &services)
{
    return mark + u' ' + esn.leftJustified(17) + suid.leftJustified(18) + address.leftJustified(16) +
           state.leftJustified(StateWidth) + services;
}

// SGR codes: registered green, pending cyan, unconfirmed yellow, unreachable red, gone dim.
QString colourOf(const QMR::Qmra::RadioNotice &notice)
{
    if (notice.pending) {
        return u"36"_s;
    }
    switch (notice.availability) {
    case QMR::Registered:
        return u"32"_s;
    case QMR::Unconfirmed:
        return u"33"_s;
    case QMR::Unreachable:
        return u"31"_s;
    default:
        return u"2"_s;
    }
}

} // namespace

bool RadioTable::lastIsGone() const
{
    const auto last = radios.find(changedLast);
    return last != radios.end() && last->second.availability == QMR::Deregistered && !last->second.pending;
}

void RadioTable::apply(const QMR::Qmra::RadioNotice &notice)
{
    if (lastIsGone()) {
        radios.erase(changedLast);
    }
    radios[notice.esn] = notice;
    changedLast = notice.esn;
}

void RadioTable::clear()
{
    radios.clear();
}

QStringList RadioTable::lines(int width, int height, bool coloured) const
{
    QStringList lines{
        row(u' ', u"ESN"_s, u"WACN/SYSTEM/UNIT"_s, u"ADDRESS"_s, u"STATE"_s, u"SERVICES"_s).left(width)};
    const auto room = height > 0 ? static_cast<size_t>(height - 1) : radios.size();
    const size_t shown = radios.size() <= room ? radios.size() : (room > 0 ? room - 1 : 0);
    size_t done = 0;
    for (const auto &[esn, notice] : radios) {
        if (done++ == shown) {
            break;
        }
        QString line = row(esn == changedLast ? u'>' : u' ', esn.text(), Follow::suidText(notice.suid),
                           Follow::addressText(notice.address), Follow::stateName(notice),
                           Follow::servicesText(notice.services))
                           .left(width);
        if (coloured && line.size() > StateColumn) {
            const qsizetype end = std::min<qsizetype>(line.size(), StateColumn + StateWidth);
            line.insert(end, u"\033[0m"_s).insert(StateColumn, u"\033[" + colourOf(notice) + u'm');
        }
        lines.append(line);
    }
    if (shown < radios.size() && room > 0) {
        lines.append(u"  ... and %1 more"_s.arg(radios.size() - shown).left(width));
    }
    return lines;
}

} // namespace WatchTool
