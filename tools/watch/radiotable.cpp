// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/radiotable.h"

namespace WatchTool {

RadioState stateOf(const QMR::Qmra::RadioNotice &notice)
{
    if (notice.pending) {
        return RadioState::Pending;
    }
    switch (notice.availability) {
    case QMR::Deregistered:
        return RadioState::Gone;
    case QMR::Unreachable:
        return RadioState::Unreachable;
    case QMR::Unconfirmed:
        return RadioState::Unconfirmed;
    case QMR::Registered:
        return RadioState::Registered;
    default:
        return RadioState::Other;
    }
}

void RadioTable::beginSnapshot()
{
    inSnapshot = true;
    ++tellings;
}

void RadioTable::endSnapshot()
{
    inSnapshot = false;
}

void RadioTable::dropUntold()
{
    for (auto radio = radios.begin(); radio != radios.end();) {
        if (radio->second.telling == tellings) {
            ++radio;
            continue;
        }
        const QMR::Esn esn = radio->first;
        --countOf(radio->second);
        radio = radios.erase(radio);
        if (onTouched) {
            onTouched(esn);
        }
    }
}

bool RadioTable::isNews(const TableRadio *known, const QMR::Qmra::RadioNotice &notice) const
{
    return !inSnapshot || (tellings > 1 && (known == nullptr || known->notice != notice));
}

void RadioTable::apply(const QMR::Qmra::RadioNotice &notice, qint64 now)
{
    removeTheGone();
    const TableRadio *known = find(notice.esn);
    const bool isChange = isNews(known, notice);
    if (known != nullptr) {
        --countOf(*known);
    }
    TableRadio &radio = radios[notice.esn];
    radio.notice = notice;
    radio.telling = tellings;
    if (isChange) {
        radio.changed = now;
        radio.change = ++changes;
    }
    ++countOf(radio);
    toldLast = notice.esn;
    if (onTouched) {
        onTouched(notice.esn);
    }
}

void RadioTable::removeTheGone()
{
    const TableRadio *told = last();
    if (told == nullptr || stateOf(told->notice) != RadioState::Gone) {
        return;
    }
    --countOf(*told);
    radios.erase(toldLast);
    if (onTouched) {
        onTouched(toldLast);
    }
}

const TableRadio *RadioTable::find(const QMR::Esn &esn) const
{
    const auto radio = radios.find(esn);
    return radio == radios.end() ? nullptr : &radio->second;
}

size_t RadioTable::size() const
{
    return radios.size() - count(RadioState::Gone);
}

} // namespace WatchTool
