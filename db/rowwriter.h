// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "db/owedwrites.h"
#include "db/statements.h"

namespace QMR {

// Runs the statements of one write inside whatever transaction or savepoint the caller has opened.
class RowWriter
{
public:
    explicit RowWriter(SubscriberStatements &prepared) : statements(prepared) {}

    // Where it failed; the connection tells why, and the caller rolls back. debt: what is owed for this
    // radio.
    std::optional<WriteStep> write(const RowWrite &write, OwedWrites::Debt debt);

    // The radio's row, by its id; nothing also where that cannot be read.
    std::optional<qint64> rowOf(const Esn &esn);

private:
    std::optional<WriteStep> insert(const SubscriberRow &row);
    bool update(const SubscriberRow &row, OwedWrites::Debt debt);
    bool insertServices(qint64 id, const ServiceList &services);

    SubscriberStatements &statements;
};

} // namespace QMR
