// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What a person types to find radios: docs/tools.md has it in words, and tests/support/searchcases.json by
// examples, for every language.
#pragma once

#include "apps/qmra.h"

#include <QString>
#include <QVarLengthArray>

#include <string>

namespace Follow {

// A text that is looked for. It may be read in several ways, and a radio matches that matches any of them;
// none matches a text that has no meaning. Blanks around it and case do not count, and every radio matches an
// empty one.
//   part of an ESN, without or with ":" between its bytes
//   a SUID or its beginning: numbers with "/" or "." between, or the digits alone
//   the beginning of an address
// To match allocates nothing.
class Search
{
public:
    explicit Search(const QString &text = {});

    bool isEmpty() const { return text.empty(); }
    bool matches(const QMR::Esn &esn, const QMR::Suid &suid, quint32 address) const;
    bool matches(const QMR::Qmra::RadioNotice &notice) const
    {
        return matches(notice.esn, notice.suid, notice.address);
    }

private:
    // The bits of a SUID that are asked for.
    struct SuidBits
    {
        quint64 value;
        quint64 mask;
    };

    void readSuid(char separator);
    bool matchesEsn(const QMR::Esn &esn) const;
    bool matchesSuid(const QMR::Suid &suid) const;
    bool matchesAddress(quint32 address) const;

    std::string text; // in capital letters
    bool hasColons;
    QVarLengthArray<SuidBits, 2> suids;
};

} // namespace Follow
