// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/qmrs.h"
#include "tools/radio/settings.h"

namespace RadioTool {

// The radios of a fleet, made one at a time from its settings: nothing is kept of any, and writing a datagram
// allocates nothing.
class FleetMembers
{
public:
    explicit FleetMembers(const Settings &settings);

    // firstAddress, addressCount: where they are; the radios go round when they are more.
    void setAddresses(quint32 firstAddress, quint32 addressCount);
    quint32 addressOf(quint32 index) const { return firstAddress + index % addressCount; }

    // The member with an ESN, or its count when it has none.
    quint32 indexOf(const QMR::Esn &esn) const;
    quint32 count() const { return size; }

    // Into the buffer; they return the message's size.
    quint16 writeRegistration(quint32 index, QMR::Qmrs::Buffer &buffer);
    quint16 writeDeregistration(quint32 index, QMR::Qmrs::Buffer &buffer);

private:
    const Identity first;
    const quint64 firstEsn;
    const quint32 size;
    const quint32 pendingPercent;
    quint32 firstAddress = 0;
    quint32 addressCount = 1;
    Identity member; // the latest; its list of services keeps its memory
};

// The n-th radio of a fleet: ESN and unit number count up from the first radio's, the pending ones are spread
// evenly.
Identity fleetMember(const Identity &first, quint32 pendingPercent, quint32 index);

} // namespace RadioTool
