// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/owedwrites.h"

namespace QMR {

void OwedWrites::owe(const Esn &esn, RowWrite::Kind failed, bool isAlone)
{
    const Debt before = of(esn);
    if (!isAlone || (before == Debt::Change && failed == RowWrite::Insert)) {
        debts[esn] = Debt::Unknown;
    } else if (failed == RowWrite::Delete) {
        // What has never been stored is not to be deleted: radios that only came and went leave nothing.
        if (before == Debt::Insert) {
            settle(esn);
        } else {
            debts[esn] = Debt::Change;
        }
    } else if (before == Debt::None) {
        debts[esn] = failed == RowWrite::Insert ? Debt::Insert : Debt::Change;
    }
}

OwedWrites::Debt OwedWrites::of(const Esn &esn) const
{
    const auto entry = debts.find(esn);
    return entry == debts.end() ? Debt::None : entry->second;
}

std::optional<Esn> OwedWrites::first() const
{
    return esnAt(debts.begin());
}

std::optional<Esn> OwedWrites::after(const Esn &esn) const
{
    return esnAt(debts.upper_bound(esn));
}

std::optional<Esn> OwedWrites::esnAt(Debts::const_iterator entry) const
{
    return entry == debts.end() ? std::nullopt : std::optional(entry->first);
}

} // namespace QMR
