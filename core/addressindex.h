// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/identity.h"

#include <QHostAddress>

#include <array>
#include <memory_resource>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace QMR {

// Which radios hold an address, without a walk through the radio table. Every radio counts under the IPv4
// values of both its addresses; an address that is null or has no IPv4 form has the value 0.
class AddressIndex
{
public:
    // The memory must outlive the index.
    explicit AddressIndex(std::pmr::memory_resource *memory = std::pmr::get_default_resource())
        : byIpv4Value(memory), byIpv6Bytes(memory)
    {
    }

    void add(const Esn &esn, const QHostAddress &address, const QHostAddress &pendingAddress);
    // The addresses must be those with which the radio was added.
    void remove(const Esn &esn, const QHostAddress &address, const QHostAddress &pendingAddress);
    void clear();

    // The number of entries, of both kinds: a radio under an IPv4 value, and under the bytes of an address.
    size_t size() const { return byIpv4Value.size() + byIpv6Bytes.size(); }

    // The smallest ESN of those with an address of this IPv4 value.
    std::optional<Esn> firstHolder(quint32 ipv4Value) const;

    // In ascending order the ESNs of all that can hold this very address. Two addresses of one IPv4 value may
    // still differ: the caller compares.
    std::vector<Esn> candidates(const QHostAddress &address) const;

private:
    // An address of the IPv4 value 0 is looked up by its IPv6 bytes: under that value stands nearly every
    // radio, for the address that it lacks.
    using Ipv6Bytes = std::array<quint8, 16>;
    // Nothing for a null address, and for one of another IPv4 value.
    static std::optional<Ipv6Bytes> ipv6Key(const QHostAddress &address);

    std::pmr::set<std::pair<quint32, Esn>> byIpv4Value;
    std::pmr::set<std::pair<Ipv6Bytes, Esn>> byIpv6Bytes;
};

} // namespace QMR
