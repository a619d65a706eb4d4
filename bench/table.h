// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

// What a figure is to be, at least or at most.
struct Aim
{
    enum Kind { AtLeast, AtMost };
    Kind kind = AtLeast;
    double limit = 0;

    bool isMet(double figure) const { return kind == AtLeast ? figure >= limit : figure <= limit; }
};

// Rows of figures, a column for each place and journal mode. Rows come in the order in which they are first
// put, whatever their column.
class Table
{
public:
    explicit Table(QStringList columnNames) : columns(std::move(columnNames)) {}

    void put(qsizetype column, const QString &row, double figure, int decimals,
             const std::optional<Aim> &aim = {});
    // An empty line before the row that is put next.
    void separate() { separated = true; }
    // What the row's last column says, of aims and conditions.
    void remark(const QString &row, const QString &text);
    void print() const;

    static QString grouped(uint32_t number); // "1,000"

private:
    struct Row
    {
        QString title;
        QStringList cells;
        QString remark;
        bool separated = false;
    };
    Row &row(const QString &title);

    const QStringList columns;
    std::vector<Row> rows;
    bool separated = false;
};
