// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/table.h"

#include <QLocale>

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int TitleWidth = 46;
constexpr int CellWidth = 15;

void printLine(const QString &title, const QStringList &cells, const QString &remark)
{
    QString line = title.leftJustified(TitleWidth);
    for (const QString &cell : cells) {
        line += cell.rightJustified(CellWidth);
    }
    while (line.endsWith(u' ')) {
        line.chop(1);
    }
    std::printf("%s\n", qPrintable(remark.isEmpty() ? line : line + u"  "_s + remark));
}

} // namespace

Table::Row &Table::row(const QString &title)
{
    const auto found = std::ranges::find(rows, title, &Row::title);
    if (found != rows.end()) {
        separated = false;
        return *found;
    }
    rows.push_back({title, QStringList(columns.size()), {}, separated});
    separated = false;
    return rows.back();
}

void Table::put(qsizetype column, const QString &title, double figure, int decimals,
                const std::optional<Aim> &aim)
{
    const bool isMissed = aim && !aim->isMet(figure);
    row(title).cells[column] = QString::number(figure, 'f', decimals) + (isMissed ? u'*' : u' ');
}

void Table::remark(const QString &title, const QString &text)
{
    row(title).remark = text;
}

void Table::print() const
{
    QStringList names = columns;
    for (QString &name : names) {
        name += u' '; // where a figure has its mark
    }
    printLine({}, names, u"aim"_s);
    for (const Row &entry : rows) {
        if (entry.separated) {
            std::printf("\n");
        }
        printLine(entry.title, entry.cells, entry.remark);
    }
    std::printf("\n* misses its aim\n");
}

QString Table::grouped(uint32_t number)
{
    return QLocale(QLocale::English).toString(number);
}
