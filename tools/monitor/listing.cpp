// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/listing.h"

#include "tools/follow/search.h"
#include "tools/monitor/json.h"

#include <limits>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

std::optional<int> parseState(const QString &name)
{
    for (int kind = 0; kind < RadioState::States; ++kind) {
        if (stateName(kind) == name) {
            return kind;
        }
    }
    return std::nullopt;
}

} // namespace

Console::Parsed<Listing> Listing::parse(const QUrlQuery &query)
{
    Listing listing;
    QString error;
    const auto read = [&](const QString &name, auto apply) {
        const QString text = query.queryItemValue(name, QUrl::FullyDecoded);
        if (error.isEmpty() && !text.isEmpty()) {
            const QString wrong = apply(text);
            error = wrong.isEmpty() ? QString() : QString(name + u": "_s + wrong);
        }
    };
    const auto number = [](quint64 maximum, auto store) {
        return [maximum, store](const QString &text) {
            const auto parsed = Console::parseNumber(text, 0, maximum);
            if (parsed) {
                store(*parsed);
            }
            return parsed.error;
        };
    };
    read(u"state"_s, [&](const QString &text) {
        listing.state = parseState(text);
        return listing.state ? QString() : u"'%1' is no state"_s.arg(text);
    });
    read(u"service"_s, number(255, [&](quint64 code) { listing.service = static_cast<quint8>(code); }));
    read(u"offset"_s, number(std::numeric_limits<qint32>::max(),
                             [&](quint64 value) { listing.offset = static_cast<qint64>(value); }));
    read(u"limit"_s, number(MostRadios, [&](quint64 value) { listing.limit = static_cast<qint64>(value); }));
    listing.server = query.queryItemValue(u"server"_s, QUrl::FullyDecoded);
    listing.search = query.queryItemValue(u"query"_s, QUrl::FullyDecoded);
    return error.isEmpty() ? Console::Parsed<Listing>::of(listing) : Console::Parsed<Listing>::failed(error);
}

QByteArray Listing::text(const Table &table) const
{
    const Follow::Search wanted(search);
    qint64 total = 0;
    QByteArray radios;
    for (size_t index = 0; index < table.servers().size(); ++index) {
        if (!server.isEmpty() && table.servers()[index].name != server) {
            continue;
        }
        for (const auto &[esn, radio] : table.radiosOf(static_cast<int>(index))) {
            const RadioState &now = radio.now();
            if (state ? now.kind() != *state : now.isGone()) {
                continue;
            }
            if ((service && !now.services.contains(static_cast<char>(*service))) ||
                !wanted.matches(esn, now.suid, now.address)) {
                continue;
            }
            if (total >= offset && total < offset + limit) {
                radios += radios.isEmpty() ? "" : ",";
                appendRadio(radios, table, radio);
            }
            ++total;
        }
    }
    return "{\"total\":" + QByteArray::number(total) + ",\"radios\":[" + radios + "]}\n";
}

} // namespace Monitor
