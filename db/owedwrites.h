// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "db/subscriberrow.h"

#include <map>
#include <optional>

namespace QMR {

// The radios whose rows are not what memory says, since a write has failed for a cause that passes.
class OwedWrites
{
public:
    enum class Debt : quint8 {
        None,
        Change,  // the row is there: it is to be changed, or deleted
        Insert,  // no row is there
        Unknown, // one may be there or not
    };

    // isAlone: of the radio's writes all before this one have been stored or have failed, and none behind it
    // has been tried.
    void owe(const Esn &esn, RowWrite::Kind failed, bool isAlone);
    void settle(const Esn &esn) { debts.erase(esn); }

    bool isEmpty() const { return debts.empty(); }
    Debt of(const Esn &esn) const;
    std::optional<Esn> first() const;
    // The next one in ESN order, whether or not this one is still there.
    std::optional<Esn> after(const Esn &esn) const;

private:
    using Debts = std::map<Esn, Debt>;
    std::optional<Esn> esnAt(Debts::const_iterator entry) const;

    Debts debts;
};

} // namespace QMR
