// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/addressindex.h"

#include <algorithm>

namespace QMR {

namespace {

template<typename Key>
std::vector<Esn> esnsUnder(const std::pmr::set<std::pair<Key, Esn>> &entries, const Key &key)
{
    std::vector<Esn> esns;
    for (auto entry = entries.lower_bound({key, Esn{}}); entry != entries.end() && entry->first == key;
         ++entry) {
        esns.push_back(entry->second);
    }
    return esns;
}

} // namespace

void AddressIndex::add(const Esn &esn, const QHostAddress &address, const QHostAddress &pendingAddress)
{
    for (const QHostAddress &held : {address, pendingAddress}) {
        byValue.emplace(held.toIPv4Address(), esn);
        if (const auto key = valuelessKey(held)) {
            valueless.emplace(*key, esn);
        }
    }
}

void AddressIndex::remove(const Esn &esn, const QHostAddress &address, const QHostAddress &pendingAddress)
{
    for (const QHostAddress &held : {address, pendingAddress}) {
        byValue.erase({held.toIPv4Address(), esn});
        if (const auto key = valuelessKey(held)) {
            valueless.erase({*key, esn});
        }
    }
}

void AddressIndex::clear()
{
    byValue.clear();
    valueless.clear();
}

std::optional<Esn> AddressIndex::firstHolder(quint32 ipv4Value) const
{
    const auto entry = byValue.lower_bound({ipv4Value, Esn{}});
    if (entry == byValue.end() || entry->first != ipv4Value) {
        return std::nullopt;
    }
    return entry->second;
}

std::vector<Esn> AddressIndex::candidates(const QHostAddress &address) const
{
    if (const auto key = valuelessKey(address)) {
        return esnsUnder(valueless, *key);
    }
    return address.isNull() ? std::vector<Esn>() : esnsUnder(byValue, address.toIPv4Address());
}

std::optional<AddressIndex::Ipv6Bytes> AddressIndex::valuelessKey(const QHostAddress &address)
{
    if (address.isNull() || address.toIPv4Address() != 0) {
        return std::nullopt;
    }
    const Q_IPV6ADDR bytes = address.toIPv6Address();
    Ipv6Bytes key{};
    std::copy(std::begin(bytes.c), std::end(bytes.c), key.begin());
    return key;
}

} // namespace QMR
