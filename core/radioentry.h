// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/identity.h"

#include <QDateTime>
#include <QHostAddress>

#include <memory>

namespace QMR {

// A radio's state, stored in the database and sent to applications as it is.
enum Availability : quint32 {
    Deregistered = 0, // has left: out of the table and the database
    Unreachable = 1, // silent for 12 hours, or three discovery requests unanswered; searched for every 1800 s
    Unconfirmed = 2, // to be heard from again before it counts as registered; searched for every 300 s
    Registered = 3,  // in contact; not searched for
};

// The null address. Copies of one object share its memory; each QHostAddress() has memory of its own.
inline const QHostAddress &noAddress()
{
    static const QHostAddress address;
    return address;
}

// What the server knows of one radio. Always held through a RadioPointer: the indexes share it with whoever
// is working on it, and it dies with its last holder.
struct RadioEntry
{
    Esn esn; // its identity, set once
    quint32 protocolVersion = 0;
    Suid suid;
    Suid pendingSuid;
    QHostAddress address = noAddress();        // of the confirmed registration; null: none
    QHostAddress pendingAddress = noAddress(); // of the registration awaiting confirmation; null: none
    quint32 availability = Deregistered;
    quint16 discoveryAttempts = 0; // discovery requests since the radio last answered
    QDateTime lastDiscoveryAttempt;
    QDateTime lastContactTime;
    QDateTime pendingDeadline;
    ServiceList supportedServices;
    ServiceList pendingServices;
};

using RadioPointer = std::shared_ptr<RadioEntry>;

} // namespace QMR
