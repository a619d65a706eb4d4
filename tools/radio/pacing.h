// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QtGlobal>

namespace RadioTool {

// When what is sent at a steady rate is due: at a rate of N a second the k-th, counted from 0, k/N seconds
// after the start, whatever has been sent before. In whole nanoseconds, rounded up, and exact however long a
// run lasts: nothing adds up. No clock: the time is an argument.
class Pacing
{
public:
    // A rate of 0.001 to 1000000 a second, of which thousandths count.
    explicit Pacing(double rate);

    // ns after the start. index: so far as the time fits, 292 years.
    qint64 timeOf(quint64 index) const;
    // How many are due by then, the first one at once. elapsed: ns since the start, not negative.
    quint64 dueBy(qint64 elapsed) const;

private:
    quint64 thousandths; // sent in 1000 s
};

} // namespace RadioTool
