// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "core/clock.h"
#include "db/writegroup.h"
#include "radio/registrationmanager.h"

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

constexpr quint32 FirstVersionKnownByAddress = 2;

QDateTime epoch()
{
    return QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
}

} // namespace

// The holder is found by the IPv4 value, deliberately not by the whole address: a sender without an IPv4 form
// has the value 0, as every missing address has, and finds the first radio that lacks one.
RadioPointer Quillmere::findHolder(const QHostAddress &senderAddress) const
{
    const auto esn = radiosByAddress.firstHolder(senderAddress.toIPv4Address());
    return esn ? findRadio(*esn) : nullptr;
}

void Quillmere::registerRadio(const Esn &esn, quint32 protocolVersion, const Suid &suid,
                              const QHostAddress &senderAddress, quint16 senderPort, bool pending,
                              const ServiceList &services)
{
    const WriteTurn turn(writes.get());
    const RadioPointer holder = findHolder(senderAddress);
    RadioPointer radio = findRadio(esn);
    if (holder && holder != radio) {
        deregisterRadio(holder->esn, senderAddress);
    }
    if (radio) {
        radio->protocolVersion = protocolVersion;
        registerKnownRadio(radio, suid, senderAddress, pending, services);
    } else {
        radio = registerNewRadio(esn, protocolVersion, suid, senderAddress, pending, services);
    }
    sendRegistrationAck(radio, senderPort, pending);
}

RadioPointer Quillmere::registerNewRadio(const Esn &esn, quint32 protocolVersion, const Suid &suid,
                                         const QHostAddress &senderAddress, bool pending,
                                         const ServiceList &services)
{
    const auto radio = std::make_shared<RadioEntry>();
    radio->esn = esn;
    radio->protocolVersion = protocolVersion;
    radio->lastDiscoveryAttempt = epoch();
    if (pending) {
        radio->lastContactTime = epoch();
        radio->pendingSuid = suid;
        radio->pendingAddress = senderAddress;
        radio->pendingServices = services;
    } else {
        radio->suid = suid;
        radio->address = senderAddress;
        radio->supportedServices = services;
    }
    insertRadio(radio);
    if (pending) {
        registerPending(radio);
    } else {
        insertSubscriber(*radio);
        setAvailability(radio, Registered);
    }
    return radio;
}

void Quillmere::registerKnownRadio(const RadioPointer &radio, const Suid &suid,
                                   const QHostAddress &senderAddress, bool pending,
                                   const ServiceList &services)
{
    if (!pending) {
        const bool unstored = radio->address.isNull();
        radio->suid = suid;
        setAddress(radio, senderAddress);
        radio->supportedServices = services;
        if (unstored) {
            insertSubscriber(*radio);
        }
        setAvailability(radio, Registered);
        return;
    }
    const bool refresh = !radio->pendingAddress.isNull();
    const bool changed = radio->pendingSuid != suid || radio->pendingAddress != senderAddress ||
                         radio->pendingServices != services;
    radio->pendingSuid = suid;
    radio->pendingServices = services;
    setPendingAddress(radio, senderAddress);
    if (refresh) {
        refreshPending(radio, changed);
    } else {
        registerPending(radio);
    }
}

void Quillmere::deregisterRadio(const Esn &esn, const QHostAddress &senderAddress)
{
    const RadioPointer radio = findRadio(esn);
    if (!radio) {
        log(u"Unknown Radio %1 deregistered [ignored]"_s.arg(esn.text()), Information);
    } else if (senderAddress == radio->pendingAddress) {
        deregisterPending(radio);
    } else if (senderAddress == radio->address) {
        setAvailability(radio, Deregistered);
    } else {
        log(u"Radio %1 deregistered from unexpected address %2 [ignored]"_s.arg(esnText(esn),
                                                                                senderAddress.toString()),
            Information);
    }
}

void Quillmere::deregisterRadioByAddress(const QHostAddress &senderAddress)
{
    for (const Esn &esn : radiosByAddress.candidates(senderAddress)) {
        const RadioPointer radio = findRadio(esn);
        const bool holds = radio->address == senderAddress || radio->pendingAddress == senderAddress;
        if (radio->protocolVersion < FirstVersionKnownByAddress || !holds) {
            continue;
        }
        if (!esn.isZero()) {
            deregisterRadio(esn, senderAddress);
        }
        return;
    }
}

void Quillmere::setAvailability(const RadioPointer &radio, quint32 value)
{
    const quint32 old = radio->availability;
    radio->discoveryAttempts = 0;
    switch (value) {
    case Deregistered:
        logDeregistered(radio->esn, radio->suid, radio->address);
        if (isSearchedFor(old)) {
            unscheduleDiscovery(radio);
        }
        radio->availability = Deregistered;
        setAddress(radio, noAddress());
        if (radio->pendingAddress.isNull()) {
            removeRadio(radio);
        }
        deleteSubscriber(*radio);
        break;
    case Unreachable:
        if (old == Unconfirmed) {
            unscheduleDiscovery(radio);
        }
        radio->availability = Unreachable;
        scheduleDiscovery(radio);
        updateSubscriber(*radio);
        break;
    case Unconfirmed:
        radio->availability = Unconfirmed;
        scheduleDiscovery(radio);
        updateSubscriber(*radio);
        break;
    case Registered:
        logRegistered(radio->esn, radio->suid, radio->address);
        if (isSearchedFor(old)) {
            unscheduleDiscovery(radio);
        }
        radio->availability = Registered;
        radio->lastContactTime = currentTime();
        updateSubscriber(*radio);
        break;
    default:
        updateSubscriber(*radio);
        break;
    }
    // Deliberately silent while a registration awaits confirmation: applications are shown the pending one
    // until then.
    if (radio->pendingAddress.isNull()) {
        notifyApplications(radio);
    }
}

void Quillmere::registerPending(const RadioPointer &radio)
{
    logRegistered(radio->esn, radio->pendingSuid, radio->pendingAddress);
    awaitConfirmation(radio);
    notifyApplications(radio);
}

void Quillmere::refreshPending(const RadioPointer &radio, bool changed)
{
    unscheduleHeartbeat(radio);
    awaitConfirmation(radio);
    if (changed) {
        logRegistered(radio->esn, radio->pendingSuid, radio->pendingAddress);
        notifyApplications(radio);
    }
}

void Quillmere::deregisterPending(const RadioPointer &radio)
{
    unscheduleHeartbeat(radio);
    logDeregistered(radio->esn, radio->pendingSuid, radio->pendingAddress);
    setPendingAddress(radio, noAddress());
    if (radio->address.isNull()) {
        removeRadio(radio);
    }
    notifyApplications(radio);
}

void Quillmere::sendRegistrationAck(const RadioPointer &radio, quint16 port, bool pending)
{
    constexpr quint16 PayloadLength = 1;
    Qmrs::Buffer message{}; // the payload is one byte, 0
    registrationManager->sendMessage(Qmrs::Opcode::Acknowledgement, PayloadLength, message, radio, port,
                                     pending);
}

void Quillmere::logRegistered(const Esn &esn, const Suid &suid, const QHostAddress &address) const
{
    log(u"Radio %1 with SUID %2 registered with address %3"_s.arg(esnText(esn), suidText(suid),
                                                                  address.toString()),
        Information);
}

void Quillmere::logDeregistered(const Esn &esn, const Suid &suid, const QHostAddress &address) const
{
    log(u"Radio %1 with SUID %2 deregistered from address %3"_s.arg(esnText(esn), suidText(suid),
                                                                    address.toString()),
        Information);
}

} // namespace QMR
