// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/follow/search.h"
#include "tools/watch/radiotable.h"

#include <compare>
#include <optional>
#include <vector>

namespace WatchTool {

enum class Order { Esn, Change, Address, State };

// The radios of a table that are asked for, in the order that is asked for. It is sorted when something else
// is asked for; what has changed since is put in its place by the next update.
class Selection
{
public:
    // A radio's place in the order, which is there also when the radio no longer is.
    struct Place
    {
        quint64 rank = 0;
        quint64 esn = 0;

        auto operator<=>(const Place &) const = default;
    };

    // Of a table that outlives it: all radios by ESN, for a start.
    explicit Selection(const RadioTable &table);

    // By ESN; by the last change, the newest first; by address; by state, the worst first. What is the same
    // there is in the order of the ESNs, and what has no change or no address comes last.
    void setOrder(Order order);
    Order order() const { return sorting; }
    void setSearch(const QString &text);
    // Whether only such radios are asked for, of which there may be several. None is set: all are asked for.
    void toggle(RadioState state);
    void showAllStates();
    bool isToggled(RadioState state) const { return (states & bit(state)) != 0; }

    // The radio was told of or has left.
    void touch(const QMR::Esn &esn);
    void update();

    // As of the last update.
    size_t size() const { return places.size(); }
    const Place &place(size_t index) const { return places[index]; }
    const TableRadio &radio(size_t index) const;
    // The first at this place or behind it; size(): none is.
    size_t indexFrom(const Place &place) const;
    std::optional<size_t> indexOf(const TableRadio &radio) const;

private:
    static unsigned bit(RadioState state) { return 1U << static_cast<unsigned>(state); }
    Place placeOf(const TableRadio &radio) const;
    bool isAskedFor(const TableRadio &radio) const;
    void selectAnew();

    const RadioTable &table;
    Order sorting = Order::Esn;
    Follow::Search search;
    unsigned states = 0;          // a bit each; none: all
    std::vector<Place> places;    // in order
    std::vector<quint64> touched; // ESNs, since the last update
};

} // namespace WatchTool
