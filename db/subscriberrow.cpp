// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/subscriberrow.h"

namespace QMR {

namespace {

qint64 toSeconds(const QDateTime &time)
{
    return time.isValid() ? time.toSecsSinceEpoch() : 0;
}

} // namespace

SubscriberRow::SubscriberRow(const RadioEntry &radio)
    : esn(radio.esn),
      suid(radio.suid),
      address(radio.address.toIPv4Address()),
      availability(static_cast<qint32>(radio.availability)),
      lastContact(toSeconds(radio.lastContactTime)),
      discoveryAttempts(radio.discoveryAttempts),
      lastDiscoveryAttempt(toSeconds(radio.lastDiscoveryAttempt)),
      protocolVersion(static_cast<qint32>(radio.protocolVersion)),
      services(radio.supportedServices)
{
}

WriteStep firstStep(RowWrite::Kind kind)
{
    switch (kind) {
    case RowWrite::Insert:
        return WriteStep::InsertRow;
    case RowWrite::Update:
        return WriteStep::Update;
    default:
        return WriteStep::Delete;
    }
}

WriteStep lastStep(RowWrite::Kind kind)
{
    return kind == RowWrite::Insert ? WriteStep::InsertServices : firstStep(kind);
}

} // namespace QMR
