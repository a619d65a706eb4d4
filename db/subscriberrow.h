// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/radioentry.h"

namespace QMR {

// A radio's confirmed registration in the form in which its rows hold it.
struct SubscriberRow
{
    explicit SubscriberRow(const RadioEntry &radio);
    explicit SubscriberRow(const Esn &radio) : esn(radio) {}

    Esn esn;
    Suid suid;
    quint32 address = 0; // IPv4, host order; 0: none
    qint32 availability = 0;
    qint64 lastContact = 0; // seconds since 1970; 0: never
    quint16 discoveryAttempts = 0;
    qint64 lastDiscoveryAttempt = 0; // seconds since 1970; 0: never
    qint32 protocolVersion = 0;
    ServiceList services;
};

// One write of a radio's rows.
struct RowWrite
{
    enum Kind : quint8 { Insert, Update, Delete };

    Kind kind;
    SubscriberRow row;    // of a Delete only the ESN counts
    bool isRetry = false; // it has failed before, and has had its record
    bool isLatest = true; // no later write of the same radio has failed
};

// Where a write failed.
enum class WriteStep : quint8 { InsertRow, ReadId, InsertServices, Update, Delete };

// The step that has failed where the write's transaction cannot begin.
WriteStep firstStep(RowWrite::Kind kind);
// The step that has failed where the transaction is not committed.
WriteStep lastStep(RowWrite::Kind kind);

} // namespace QMR
