// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// How a radio is known: its electronic serial number, its P25 subscriber unit identity and the data services
// it offers. Plain values: copied byte for byte, compared byte-wise.
#pragma once

#include <QString>
#include <QVarLengthArray>

#include <array>
#include <compare>

namespace QMR {

// Electronic serial number, 8 opaque bytes.
struct Esn
{
    std::array<quint8, 8> bytes{};

    bool isZero() const { return *this == Esn{}; }
    // 16 upper-case hexadecimal digits; separated: a ":" between bytes.
    QString text(bool separated = false) const;

    auto operator<=>(const Esn &) const = default;
};

// P25 subscriber unit identity, 7 bytes, bit fields most significant first: WACN 20 bits, System 12, Unit 24.
struct Suid
{
    std::array<quint8, 7> bytes{};

    quint32 wacn() const;
    quint32 system() const;
    quint32 unit() const;
    // "{WACN: 0x%1, System: 0x%2, Unit: 0x%3}", upper-case hexadecimal without leading zeros.
    QString text() const;

    auto operator<=>(const Suid &) const = default;
};

// Service codes in the order received, duplicates kept. The few that a radio has lie in the list itself.
using ServiceList = QVarLengthArray<quint32, 4>;

} // namespace QMR
