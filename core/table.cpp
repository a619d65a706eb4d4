// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "core/clock.h"
#include "db/writegroup.h"

#include <QHash>

#include <algorithm>
#include <array>
#include <tuple>
#include <vector>

namespace QMR {

namespace {

constexpr qint64 UnconfirmedSpacing = 300; // seconds
constexpr qint64 OtherSpacing = 1800;      // seconds
constexpr qint64 SilenceLimit = 43200;     // seconds
constexpr size_t ReviewGroup = 16384; // radios a commit: what could have to be written again is in memory

qint64 discoverySpacing(const RadioEntry &radio)
{
    return radio.availability == Unconfirmed ? UnconfirmedSpacing : OtherSpacing;
}

// nextDiscoveryTime() in milliseconds since 1970, for the queue's many comparisons.
qint64 dueTime(const RadioEntry &radio)
{
    return radio.lastDiscoveryAttempt.toMSecsSinceEpoch() + discoverySpacing(radio) * 1000;
}

} // namespace

static size_t qHash(const Esn &esn, size_t seed)
{
    return qHashBits(esn.bytes.data(), esn.bytes.size(), seed);
}

namespace {

using EsnTexts = QHash<Esn, QString>;
thread_local std::array<EsnTexts, 2> esnTexts; // run together and separated

} // namespace

bool Quillmere::EarlierDiscovery::operator()(const RadioPointer &a, const RadioPointer &b) const
{
    return std::forward_as_tuple(dueTime(*a), a->esn) < std::forward_as_tuple(dueTime(*b), b->esn);
}

bool Quillmere::EarlierDeadline::operator()(const RadioPointer &a, const RadioPointer &b) const
{
    return std::forward_as_tuple(a->pendingDeadline.toMSecsSinceEpoch(), a->esn) <
           std::forward_as_tuple(b->pendingDeadline.toMSecsSinceEpoch(), b->esn);
}

RadioPointer Quillmere::findRadio(const Esn &esn) const
{
    const auto entry = radiosByEsn.find(esn);
    return entry == radiosByEsn.end() ? nullptr : entry->second;
}

RadioPointer Quillmere::insertRadio(const RadioPointer &radio)
{
    const auto [entry, inserted] = radiosByEsn.try_emplace(radio->esn, radio);
    if (inserted) {
        radiosByAddress.add(radio->esn, radio->address, radio->pendingAddress);
    }
    return entry->second;
}

size_t Quillmere::removeRadio(const RadioPointer &radio)
{
    const auto entry = radiosByEsn.find(radio->esn);
    if (entry == radiosByEsn.end()) {
        return 0;
    }
    radiosByAddress.remove(entry->first, entry->second->address, entry->second->pendingAddress);
    forgetEsnText(entry->first);
    radiosByEsn.erase(entry);
    return 1;
}

void Quillmere::setAddresses(const RadioPointer &radio, const QHostAddress &address,
                             const QHostAddress &pendingAddress)
{
    if (radio->address == address && radio->pendingAddress == pendingAddress) {
        return;
    }
    // Of two stored rows with one ESN the second is supervised without being in the table; the index has the
    // first.
    const bool indexed = findRadio(radio->esn) == radio;
    if (indexed) {
        radiosByAddress.remove(radio->esn, radio->address, radio->pendingAddress);
    }
    radio->address = address;
    radio->pendingAddress = pendingAddress;
    if (indexed) {
        radiosByAddress.add(radio->esn, radio->address, radio->pendingAddress);
    }
}

QDateTime Quillmere::nextDiscoveryTime(const RadioEntry &radio)
{
    return radio.lastDiscoveryAttempt.addSecs(discoverySpacing(radio));
}

void Quillmere::scheduleDiscovery(const RadioPointer &radio)
{
    discoveryQueue.insert(radio);
    rearmDiscoveryTimer();
}

void Quillmere::unscheduleDiscovery(const RadioPointer &radio)
{
    discoveryQueue.erase(radio);
    rearmDiscoveryTimer();
}

void Quillmere::scheduleHeartbeat(const RadioPointer &radio)
{
    heartbeatQueue.insert(radio);
    rearmHeartbeatTimer();
}

void Quillmere::unscheduleHeartbeat(const RadioPointer &radio)
{
    heartbeatQueue.erase(radio);
    rearmHeartbeatTimer();
}

void Quillmere::loadRadioTable()
{
    std::list<RadioPointer> loaded;
    loadSubscribers(loaded);

    const WriteTurn turn(writes.get());
    for (const RadioPointer &radio : loaded) {
        insertRadio(radio);
        reviewLoadedRadio(radio);
        if (writes->size() >= ReviewGroup) {
            writes->commit();
        }
    }
}

void Quillmere::reviewLoadedRadio(const RadioPointer &radio)
{
    if (radio->availability == Deregistered) {
        removeRadio(radio);
        deleteSubscriber(*radio);
        return;
    }
    const bool stale = radio->lastContactTime.secsTo(currentTime()) >= SilenceLimit;
    if (!stale && radio->availability == Registered) {
        radio->availability = Unconfirmed;
        radio->discoveryAttempts = 0;
    } else if (stale && (radio->availability == Unconfirmed || radio->availability == Registered)) {
        radio->availability = Unreachable;
        radio->discoveryAttempts = 0;
    } else if (stale && radio->availability == Unreachable) {
        radio->discoveryAttempts = 0;
    }
    updateSubscriber(*radio);
    scheduleDiscovery(radio);
}

// The records are given back in the order of their memory: in that of their ESNs a million take twice as
// long.
void Quillmere::clearRadioTable()
{
    std::vector<RadioPointer> records;
    records.reserve(radiosByEsn.size());
    for (auto &[esn, radio] : radiosByEsn) {
        records.push_back(std::move(radio));
    }
    std::ranges::sort(records);
    discoveryQueue.clear();
    heartbeatQueue.clear();
    radiosByEsn.clear();
    radiosByAddress.clear();
    forgetEsnTexts();
}

QString Quillmere::esnText(const Esn &esn, bool separated)
{
    EsnTexts &texts = esnTexts[static_cast<size_t>(separated)];
    auto text = texts.find(esn);
    if (text == texts.end()) {
        text = texts.insert(esn, esn.text(separated));
    }
    return *text;
}

// Radios that come and go, with made-up ESNs even, must not fill the memory with their texts.
void Quillmere::forgetEsnText(const Esn &esn)
{
    for (EsnTexts &texts : esnTexts) {
        texts.remove(esn);
    }
}

void Quillmere::forgetEsnTexts()
{
    esnTexts.fill({});
}

} // namespace QMR
