// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/qmra.h"

#include <QStringList>

#include <map>

namespace WatchTool {

// The radios as the notices tell of them, and the lines of a table that shows them.
class RadioTable
{
public:
    // A radio that is gone is shown once more, and leaves with the next notice.
    void apply(const QMR::Qmra::RadioNotice &notice);
    void clear();
    size_t size() const { return radios.size() - (lastIsGone() ? 1 : 0); }

    // A heading, then a line a radio in ESN order; the one that changed last begins with ">". None wider than
    // width, none more than height (0: any number): the last line then tells how many are left out.
    QStringList lines(int width, int height, bool coloured) const;

private:
    bool lastIsGone() const;

    std::map<QMR::Esn, QMR::Qmra::RadioNotice> radios;
    QMR::Esn changedLast;
};

} // namespace WatchTool
