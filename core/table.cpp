// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "db/writegroup.h"

#include <QHash>

#include <algorithm>
#include <array>
#include <vector>

namespace QMR {

namespace {

constexpr size_t ReviewGroup = 16384; // radios a commit: what could have to be written again is in memory

} // namespace

// Not in the unnamed namespace, where QHash would not find it.
static size_t qHash(const Esn &esn, size_t seed)
{
    return qHashBits(esn.bytes.data(), esn.bytes.size(), seed);
}

namespace {

using EsnTexts = QHash<Esn, QString>;
thread_local std::array<EsnTexts, 2> esnTexts; // run together and separated

} // namespace

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

void Quillmere::setAddress(const RadioPointer &radio, const QHostAddress &address)
{
    replaceAddress(radio, &RadioEntry::address, address);
}

void Quillmere::setPendingAddress(const RadioPointer &radio, const QHostAddress &address)
{
    replaceAddress(radio, &RadioEntry::pendingAddress, address);
}

void Quillmere::replaceAddress(const RadioPointer &radio, QHostAddress RadioEntry::*held,
                               const QHostAddress &address)
{
    QHostAddress &present = (*radio).*held;
    if (present == address) {
        return;
    }
    // Of two stored rows with one ESN the second is supervised without being in the table; the index has the
    // first.
    const bool indexed = findRadio(radio->esn) == radio;
    if (indexed) {
        radiosByAddress.remove(radio->esn, radio->address, radio->pendingAddress);
    }
    present = address;
    if (indexed) {
        radiosByAddress.add(radio->esn, radio->address, radio->pendingAddress);
    }
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
