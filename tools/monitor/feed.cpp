// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/feed.h"

#include "tools/monitor/json.h"

#include <algorithm>

namespace Monitor {

namespace {

constexpr qsizetype Slice = 65536; // bytes, and the rest of a radio

QByteArray event(const QByteArray &name, const QByteArray &data)
{
    return "event: " + name + "\ndata: " + data + "\n\n";
}

} // namespace

Feed::Feed(const Observed &newObserved) : observed(newObserved)
{
    beginAnew();
}

void Feed::beginAnew()
{
    told = 0;
    endOfTable = observed.table.lastOrder();
    radiosOfTable = 0;
    tableIsTold = false;
}

QByteArray Feed::next()
{
    if (toldStatus != observed.statusNumber) {
        toldStatus = observed.statusNumber;
        return event("status", observed.status);
    }
    // What was forgotten and had gone before the table began to be told, the reader never heard of.
    if (observed.table.forgottenOrder() > std::max(told, endOfTable)) {
        beginAnew();
        return event("reset", "{}");
    }
    const QByteArray radios = nextRadios();
    if (!radios.isEmpty()) {
        return event("radios", '[' + radios + ']');
    }
    if (!tableIsTold) {
        tableIsTold = true;
        return event("snapshot", "{\"radios\":" + QByteArray::number(radiosOfTable) + '}');
    }
    return {};
}

QByteArray Feed::nextRadios()
{
    QByteArray radios;
    while (const Radio *radio = observed.table.changedAfter(told)) {
        const bool isOfTable = radio->order <= endOfTable;
        if (radios.size() >= Slice || (!isOfTable && !tableIsTold)) {
            break;
        }
        told = radio->order;
        if (isOfTable && radio->now().isGone()) {
            continue; // the reader has never heard of it
        }
        radios += radios.isEmpty() ? "" : ",";
        appendRadio(radios, observed.table, *radio);
        radiosOfTable += isOfTable ? 1 : 0;
    }
    return radios;
}

} // namespace Monitor
