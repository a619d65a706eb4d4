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
        byIpv4Value.emplace(held.toIPv4Address(), esn);
        if (const auto key = ipv6Key(held)) {
            byIpv6Bytes.emplace(*key, esn);
        }
    }
}

void AddressIndex::remove(const Esn &esn, const QHostAddress &address, const QHostAddress &pendingAddress)
{
    for (const QHostAddress &held : {address, pendingAddress}) {
        byIpv4Value.erase({held.toIPv4Address(), esn});
        if (const auto key = ipv6Key(held)) {
            byIpv6Bytes.erase({*key, esn});
        }
    }
}

void AddressIndex::clear()
{
    byIpv4Value.clear();
    byIpv6Bytes.clear();
}

std::optional<Esn> AddressIndex::firstHolder(quint32 ipv4Value) const
{
    const auto entry = byIpv4Value.lower_bound({ipv4Value, Esn{}});
    if (entry == byIpv4Value.end() || entry->first != ipv4Value) {
        return std::nullopt;
    }
    return entry->second;
}

std::vector<Esn> AddressIndex::candidates(const QHostAddress &address) const
{
    if (const auto key = ipv6Key(address)) {
        return esnsUnder(byIpv6Bytes, *key);
    }
    return address.isNull() ? std::vector<Esn>() : esnsUnder(byIpv4Value, address.toIPv4Address());
}

std::optional<AddressIndex::Ipv6Bytes> AddressIndex::ipv6Key(const QHostAddress &address)
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
