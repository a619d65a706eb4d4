// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/qmra.h"

#include <array>
#include <functional>
#include <map>
#include <optional>

namespace WatchTool {

// In the order in which somebody should look at them.
enum class RadioState { Unreachable, Unconfirmed, Pending, Registered, Other, Gone };

RadioState stateOf(const QMR::Qmra::RadioNotice &notice);

// A radio as it was told of last.
struct TableRadio
{
    QMR::Qmra::RadioNotice notice;
    std::optional<qint64> changed; // when, in ms; none: not since the table began
    quint64 change = 0;            // the later, the higher; 0: none
    quint64 telling = 0;           // of all radios, in which it was told of
};

// The radios as the notices tell of them, since when each is as it is, and how many are in each state.
class RadioTable
{
public:
    using Radios = std::map<QMR::Esn, TableRadio>;

    // A radio was told of, or has left the table.
    std::function<void(const QMR::Esn &)> onTouched;

    // What is told until the end is how the server's radios are, and only what is not as it was known has
    // changed; at the first time nothing has. There need not be an end before it begins again.
    void beginSnapshot();
    void endSnapshot();
    // What has not been told of since it began has left.
    void dropUntold();
    // A radio that is gone stays once more, and leaves with the next notice.
    void apply(const QMR::Qmra::RadioNotice &notice, qint64 now);

    const Radios &all() const { return radios; }
    const TableRadio *find(const QMR::Esn &esn) const;
    const TableRadio *last() const { return find(toldLast); } // that was told of
    // Without one that is gone.
    size_t size() const;
    size_t count(RadioState state) const { return counts[static_cast<size_t>(state)]; }

private:
    size_t &countOf(const TableRadio &radio) { return counts[static_cast<size_t>(stateOf(radio.notice))]; }
    bool isNews(const TableRadio *known, const QMR::Qmra::RadioNotice &notice) const;
    void removeTheGone();

    Radios radios;
    std::array<size_t, 6> counts{};
    QMR::Esn toldLast;
    quint64 changes = 0;
    quint64 tellings = 0;
    bool inSnapshot = false;
};

} // namespace WatchTool
