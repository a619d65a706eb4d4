// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/watch/radiotable.h"

#include <QString>

namespace WatchTool {

// "3 s", "2 min", "5 h", "4 d"; whole units of it that have passed.
QString ageText(qint64 milliseconds);

// What a line tells of a radio: as much as fits into a width. The last to be cut is the state, the last but
// one the ESN.
class Columns
{
public:
    explicit Columns(int width);
    // Of any width, and without how long ago a radio changed: for what is read later.
    static Columns plain();

    QString heading() const;
    // isLast: the radio that changed last, which is marked. now: in the table's time.
    QString row(const TableRadio &radio, bool isLast, qint64 now, bool coloured) const;

private:
    struct Texts;

    Columns() = default;
    QString line(const Texts &texts, const QString &colour) const;

    int width = 0;     // 0: any
    int esnDigits = 0; // 0: no ESN
    bool hasMark = false;
    bool hasAge = false;
    bool hasAddress = false;
    bool hasSuid = false;
};

} // namespace WatchTool
