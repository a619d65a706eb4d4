// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/selection.h"

#include <QtEndian>

#include <algorithm>

namespace WatchTool {

namespace {

constexpr quint64 AfterAllAddresses = quint64{1} << 32;

// In the same order as the ESNs themselves, and quicker to compare.
quint64 numberOf(const QMR::Esn &esn)
{
    return qFromBigEndian<quint64>(esn.bytes.data());
}

QMR::Esn esnOf(quint64 number)
{
    QMR::Esn esn;
    qToBigEndian(number, esn.bytes.data());
    return esn;
}

} // namespace

Selection::Selection(const RadioTable &newTable) : table(newTable)
{
    selectAnew();
}

void Selection::setOrder(Order order)
{
    sorting = order;
    selectAnew();
}

void Selection::setSearch(const QString &text)
{
    search = Follow::Search(text);
    selectAnew();
}

void Selection::toggle(RadioState state)
{
    states ^= bit(state);
    selectAnew();
}

void Selection::showAllStates()
{
    states = 0;
    selectAnew();
}

void Selection::touch(const QMR::Esn &esn)
{
    touched.push_back(numberOf(esn));
}

void Selection::update()
{
    if (touched.empty()) {
        return;
    }
    std::sort(touched.begin(), touched.end());
    touched.erase(std::unique(touched.begin(), touched.end()), touched.end());
    std::erase_if(places, [this](const Place &place) {
        return std::binary_search(touched.begin(), touched.end(), place.esn);
    });
    const auto untouched = static_cast<std::ptrdiff_t>(places.size());
    for (const quint64 esn : touched) {
        const TableRadio *radio = table.find(esnOf(esn));
        if (radio != nullptr && isAskedFor(*radio)) {
            places.push_back(placeOf(*radio));
        }
    }
    std::sort(places.begin() + untouched, places.end());
    std::inplace_merge(places.begin(), places.begin() + untouched, places.end());
    touched.clear();
}

const TableRadio &Selection::radio(size_t index) const
{
    return *table.find(esnOf(places[index].esn));
}

size_t Selection::indexFrom(const Place &place) const
{
    return static_cast<size_t>(std::lower_bound(places.begin(), places.end(), place) - places.begin());
}

std::optional<size_t> Selection::indexOf(const TableRadio &radio) const
{
    const Place place = placeOf(radio);
    const size_t index = indexFrom(place);
    return index < places.size() && places[index] == place ? std::optional(index) : std::nullopt;
}

Selection::Place Selection::placeOf(const TableRadio &radio) const
{
    const quint64 esn = numberOf(radio.notice.esn);
    switch (sorting) {
    case Order::Change:
        return {~radio.change, esn};
    case Order::Address:
        return {radio.notice.address == 0 ? AfterAllAddresses : radio.notice.address, esn};
    case Order::State:
        return {static_cast<quint64>(stateOf(radio.notice)), esn};
    case Order::Esn:
        break;
    }
    return {0, esn};
}

bool Selection::isAskedFor(const TableRadio &radio) const
{
    return (states == 0 || isToggled(stateOf(radio.notice))) && search.matches(radio.notice);
}

void Selection::selectAnew()
{
    touched.clear();
    places.clear();
    for (const auto &[esn, radio] : table.all()) {
        if (isAskedFor(radio)) {
            places.push_back(placeOf(radio));
        }
    }
    if (sorting != Order::Esn) {
        std::sort(places.begin(), places.end());
    }
}

} // namespace WatchTool
