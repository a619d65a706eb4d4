// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/fleetmembers.h"

#include <QtEndian>

namespace RadioTool {

namespace {

// Assigns over a member: a list of as many services needs no memory anew.
void makeMember(Identity &member, const Identity &first, quint32 pendingPercent, quint32 index)
{
    member = first;
    qToBigEndian(qFromBigEndian<quint64>(first.esn.bytes.data()) + index, member.esn.bytes.data());
    const quint32 unit = first.suid.unit() + index;
    member.suid.bytes[4] = static_cast<quint8>(unit >> 16);
    member.suid.bytes[5] = static_cast<quint8>(unit >> 8);
    member.suid.bytes[6] = static_cast<quint8>(unit);
    member.pending = quint64{index} * pendingPercent % 100 + pendingPercent >= 100;
}

} // namespace

Identity fleetMember(const Identity &first, quint32 pendingPercent, quint32 index)
{
    Identity member;
    makeMember(member, first, pendingPercent, index);
    return member;
}

FleetMembers::FleetMembers(const Settings &settings)
    : first(settings.radio),
      firstEsn(qFromBigEndian<quint64>(settings.radio.esn.bytes.data())),
      size(settings.fleet.count),
      pendingPercent(settings.fleet.pendingPercent)
{
}

void FleetMembers::setAddresses(quint32 newFirstAddress, quint32 newAddressCount)
{
    firstAddress = newFirstAddress;
    addressCount = newAddressCount;
}

quint32 FleetMembers::indexOf(const QMR::Esn &esn) const
{
    const quint64 index = qFromBigEndian<quint64>(esn.bytes.data()) - firstEsn;
    return index < size ? static_cast<quint32>(index) : size;
}

quint16 FleetMembers::writeRegistration(quint32 index, QMR::Qmrs::Buffer &buffer)
{
    makeMember(member, first, pendingPercent, index);
    if (member.basic) {
        return QMR::Qmrs::writeBasicRegistration(buffer, member.protocolVersion, member.esn, member.services);
    }
    return QMR::Qmrs::writeExtendedRegistration(buffer, member.protocolVersion, member.esn, member.suid,
                                                member.pending, member.services);
}

quint16 FleetMembers::writeDeregistration(quint32 index, QMR::Qmrs::Buffer &buffer)
{
    makeMember(member, first, pendingPercent, index);
    return QMR::Qmrs::writeDeregistration(buffer, member.protocolVersion, member.esn);
}

} // namespace RadioTool
