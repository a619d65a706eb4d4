// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/availability.h"
#include "radio/identity.h"

#include <QDateTime>
#include <QHostAddress>

#include <memory>

namespace QMR {

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
