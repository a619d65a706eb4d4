// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/registrationmodel.h"

#include <QHostAddress>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;
using QMR::Esn;

namespace {

constexpr quint32 Deregistered = 0;
constexpr quint32 Unreachable = 1;
constexpr quint32 Unconfirmed = 2;
constexpr quint32 Registered = 3;

constexpr qint64 Second = 1000;
constexpr qint64 TwelveHours = 43200 * Second;

QString addressText(RegistrationModel::Address address)
{
    return address ? QHostAddress(*address).toString() : QString();
}

QString servicesText(const QMR::ServiceList &services)
{
    QStringList texts;
    for (const quint32 service : services) {
        texts.append(QString::number(service));
    }
    return texts.join(u',');
}

// Until a moment, in whole seconds, rounded up; 0 when it has passed.
qint64 secondsUntil(qint64 then, qint64 now)
{
    return then > now ? (then - now + Second - 1) / Second : 0;
}

} // namespace

QString RegistrationModel::Radio::text() const
{
    return u"version %1, %2 at %3 [%4], pending %5 at %6 [%7] until %8, availability %9"_s.arg(
               QString::number(protocolVersion), suid.text(), addressText(address), servicesText(services),
               pendingSuid.text(), addressText(pendingAddress), servicesText(pendingServices),
               QString::number(deadline.value_or(-1)), QString::number(availability)) +
           u", attempts %1, last request %2, last contact %3"_s.arg(attempts)
               .arg(lastDiscovery)
               .arg(lastContact);
}

QString RegistrationModel::Row::text() const
{
    return u"version %1, %2 at %3 [%4], availability %5, attempts %6, last request %7, last contact %8"_s.arg(
        QString::number(protocolVersion), suid.text(), addressText(address), servicesText(services),
        QString::number(availability), QString::number(attempts), QString::number(lastDiscovery),
        QString::number(lastContact));
}

QString RegistrationModel::Row::insertion(const Esn &esn) const
{
    const QByteArray suidBytes(reinterpret_cast<const char *>(suid.bytes.data()),
                               static_cast<qsizetype>(suid.bytes.size()));
    return u"INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time, "
           "num_discovery_attempts, last_discovery_attempt, protocol_version) "
           "VALUES (x'%1', x'%2', %3, %4, %5, %6, %7, %8)"_s.arg(
               esn.text(), QString::fromLatin1(suidBytes.toHex()), QString::number(address),
               QString::number(availability), QString::number(lastContact), QString::number(attempts),
               QString::number(lastDiscovery), QString::number(protocolVersion));
}

std::vector<Esn> RegistrationModel::searchedFor() const
{
    std::vector<Esn> esns;
    for (const auto &[esn, radio] : table) {
        if (radio.availability == Unreachable || radio.availability == Unconfirmed) {
            esns.push_back(esn);
        }
    }
    // Stable: of those due at the same time the smaller ESN comes first.
    std::stable_sort(esns.begin(), esns.end(),
                     [this](const Esn &a, const Esn &b) { return dueTime(a) < dueTime(b); });
    return esns;
}

std::vector<Esn> RegistrationModel::awaitingConfirmation() const
{
    std::vector<Esn> esns;
    for (const auto &[esn, radio] : table) {
        if (radio.pendingAddress) {
            esns.push_back(esn);
        }
    }
    std::stable_sort(esns.begin(), esns.end(), [this](const Esn &a, const Esn &b) {
        return *table.at(a).deadline < *table.at(b).deadline;
    });
    return esns;
}

std::optional<Esn> RegistrationModel::holderOf(quint32 address) const
{
    for (const auto &[esn, radio] : table) {
        if (radio.pendingAddress == address || radio.address == address) {
            return esn;
        }
    }
    return std::nullopt;
}

qint64 RegistrationModel::dueTime(const Esn &esn) const
{
    const Radio &radio = table.at(esn);
    return radio.lastDiscovery + (radio.availability == Unconfirmed ? 300 : 1800) * Second;
}

qint64 RegistrationModel::secondsToDiscovery() const
{
    return std::max(secondsUntil(dueTime(searchedFor().front()), now),
                    secondsUntil(lastRequest + minimumPeriod * Second, now));
}

void RegistrationModel::armDiscovery()
{
    discoveryTimer.reset();
    if (!searchedFor().empty()) {
        discoveryTimer = secondsToDiscovery() * Second;
    }
}

void RegistrationModel::armDeadline()
{
    deadlineTimer.reset();
    if (const auto waiting = awaitingConfirmation(); !waiting.empty()) {
        deadlineTimer = std::max<qint64>(*table.at(waiting.front()).deadline - now, 0);
    }
}

void RegistrationModel::registers(const Registration &registration)
{
    const Esn esn = registration.esn;
    const auto holder = holderOf(registration.address);
    const bool known = table.contains(esn);
    if (holder && *holder != esn) {
        deregisters(*holder, registration.address);
    }
    Radio &radio = table[esn];
    radio.protocolVersion = registration.protocolVersion;
    if (!registration.pending) {
        if (!radio.address) {
            insert();
        }
        radio.suid = registration.suid;
        radio.address = registration.address;
        radio.services = registration.services;
        setAvailability(esn, Registered);
        return;
    }
    const bool refresh = known && radio.pendingAddress;
    const bool changed = radio.pendingSuid != registration.suid ||
                         radio.pendingAddress != registration.address ||
                         radio.pendingServices != registration.services;
    radio.pendingSuid = registration.suid;
    radio.pendingAddress = registration.address;
    radio.pendingServices = registration.services;
    radio.deadline = now + 17 * Second;
    armDeadline();
    if (!refresh || changed) {
        record(u"Radio %1 with SUID %2 registered with address %3"_s, esn, radio.pendingSuid,
               radio.pendingAddress);
        notices.append(noticeOf(esn, radio));
    }
}

void RegistrationModel::deregisters(const Esn &esn, quint32 address)
{
    const auto entry = table.find(esn);
    if (entry == table.end()) {
        records.append(RecordingLog::record(Scm::EventInformation,
                                            u"Unknown Radio %1 deregistered [ignored]"_s.arg(esn.text())));
    } else if (entry->second.pendingAddress == address) {
        deregistersPending(esn);
    } else if (entry->second.address == address) {
        setAvailability(esn, Deregistered);
    } else {
        records.append(RecordingLog::record(
            Scm::EventInformation, u"Radio %1 deregistered from unexpected address %2 [ignored]"_s.arg(
                                       esn.text(), addressText(address))));
    }
}

void RegistrationModel::deregistersByAddress(quint32 address)
{
    for (const auto &[esn, radio] : table) {
        if (radio.protocolVersion >= 2 && (radio.address == address || radio.pendingAddress == address)) {
            if (!esn.isZero()) {
                deregisters(Esn(esn), address);
            }
            return;
        }
    }
}

void RegistrationModel::isReported(const Esn &esn, quint32 address)
{
    const auto entry = table.find(esn);
    if (entry != table.end() && entry->second.address == address &&
        entry->second.availability == Registered) {
        setAvailability(esn, Unconfirmed);
    }
}

void RegistrationModel::setAvailability(const Esn &esn, quint32 value)
{
    Radio &radio = table.at(esn);
    const bool wasSearchedFor = radio.availability == Unreachable || radio.availability == Unconfirmed;
    radio.attempts = 0;
    radio.availability = value;
    if (value == Registered) {
        record(u"Radio %1 with SUID %2 registered with address %3"_s, esn, radio.suid, radio.address);
        radio.lastContact = now;
    } else if (value == Deregistered) {
        record(u"Radio %1 with SUID %2 deregistered from address %3"_s, esn, radio.suid, radio.address);
        radio.address.reset();
        remove(esn);
    }
    if (value != Deregistered) {
        store(esn);
    }
    if (!radio.pendingAddress) {
        notices.append(noticeOf(esn, radio));
        if (!radio.address) {
            table.erase(esn);
        }
    }
    if (wasSearchedFor || value == Unreachable || value == Unconfirmed) {
        armDiscovery();
    }
}

void RegistrationModel::deregistersPending(const Esn &esn)
{
    Radio &radio = table.at(esn);
    record(u"Radio %1 with SUID %2 deregistered from address %3"_s, esn, radio.pendingSuid,
           radio.pendingAddress);
    radio.pendingAddress.reset();
    notices.append(noticeOf(esn, radio));
    if (!radio.address) {
        table.erase(esn);
    }
    armDeadline();
}

void RegistrationModel::discoveryExpires()
{
    if (searchedFor().empty()) {
        return;
    }
    if (secondsToDiscovery() > 0) { // the timer was early
        armDiscovery();
        return;
    }
    const Esn esn = searchedFor().front();
    Radio &radio = table.at(esn);
    const bool stale = now - radio.lastContact >= TwelveHours;
    if (radio.attempts >= 3 && radio.availability == Unreachable && stale) {
        setAvailability(esn, Deregistered);
        return;
    }
    if (radio.attempts >= 3 && radio.availability == Unconfirmed && !stale) {
        setAvailability(esn, Unreachable);
    }
    requests.append({esn, radio.protocolVersion, *radio.address});
    radio.lastDiscovery = now;
    ++radio.attempts;
    store(esn);
    lastRequest = now;
    armDiscovery();
}

void RegistrationModel::timeoutCheckExpires()
{
    for (const auto &[esn, radio] : table) {
        if (radio.availability >= Unconfirmed && radio.lastContact < now - TwelveHours) {
            setAvailability(esn, Unreachable);
        }
    }
}

void RegistrationModel::deadlineExpires()
{
    for (const Esn &esn : awaitingConfirmation()) {
        if (*table.at(esn).deadline <= now) {
            deregistersPending(esn);
        }
    }
    armDeadline();
}

void RegistrationModel::restarts(bool isSameProcess)
{
    settlesWhatIsOwed();
    table.clear();
    lastRequest = isSameProcess ? lastRequest : 0;
    discoveryTimer.reset();
    deadlineTimer.reset();
    const std::map<Esn, Row> stored = rows;
    for (const auto &[esn, row] : stored) {
        if (row.availability == Deregistered) {
            remove(esn);
            continue;
        }
        Radio &radio = table[esn];
        radio.protocolVersion = row.protocolVersion;
        radio.suid = row.suid;
        radio.address = row.address;
        radio.services = row.services;
        radio.availability = row.availability;
        radio.attempts = row.attempts;
        radio.lastDiscovery = row.lastDiscovery * Second;
        radio.lastContact = row.lastContact * Second;
        if (now - radio.lastContact >= TwelveHours) {
            radio.availability = Unreachable;
            radio.attempts = 0;
        } else if (radio.availability == Registered) {
            radio.availability = Unconfirmed;
            radio.attempts = 0;
        }
        store(esn);
    }
    armDiscovery();
    records.clear(); // those of a start are not looked at
}

QList<Notice> RegistrationModel::snapshot() const
{
    QList<Notice> all;
    for (const auto &[esn, radio] : table) {
        all.append(noticeOf(esn, radio));
    }
    return all;
}

void RegistrationModel::settlesWhatIsOwed()
{
    for (const Esn &esn : std::exchange(owed, {})) {
        const auto entry = table.find(esn);
        if (entry != table.end() && entry->second.address) {
            store(esn);
        } else {
            rows.erase(esn);
        }
    }
}

bool RegistrationModel::isRefused(const Esn &esn, const QString &text)
{
    ++writes;
    if (locked) {
        records.append(RecordingLog::record(Scm::EventError, text));
        owed.insert(esn);
    } else {
        owed.erase(esn);
    }
    return locked;
}

// What is inserted is updated at once, which says what the row holds.
void RegistrationModel::insert()
{
    ++writes;
    if (locked) {
        records.append(RecordingLog::record(Scm::EventError, u"Database insert error (1)"_s));
    }
}

void RegistrationModel::remove(const Esn &esn)
{
    if (!isRefused(esn, u"Database delete error"_s)) {
        rows.erase(esn);
    } else if (!rows.contains(esn)) {
        owed.erase(esn); // there is nothing to delete
    }
}

void RegistrationModel::store(const Esn &esn)
{
    if (isRefused(esn, u"Database write error"_s)) {
        return;
    }
    const Radio &radio = table.at(esn);
    rows[esn] = {radio.suid,
                 *radio.address,
                 radio.availability,
                 radio.attempts,
                 radio.lastContact / Second,
                 radio.lastDiscovery / Second,
                 radio.protocolVersion,
                 radio.services};
}

void RegistrationModel::record(const QString &text, const Esn &esn, const QMR::Suid &suid, Address address)
{
    records.append(
        RecordingLog::record(Scm::EventInformation, text.arg(esn.text(), suid.text(), addressText(address))));
}

Notice RegistrationModel::noticeOf(const Esn &esn, const Radio &radio)
{
    QByteArray services;
    for (const quint32 service : radio.pendingAddress ? radio.pendingServices : radio.services) {
        services.append(static_cast<char>(service));
    }
    if (radio.pendingAddress) {
        return {esn, radio.pendingSuid, true, *radio.pendingAddress, Registered, services};
    }
    return {esn,     radio.suid, false, radio.address.value_or(0), static_cast<int>(radio.availability),
            services};
}
