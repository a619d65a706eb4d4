// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/search.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

using namespace std::string_view_literals;

namespace Follow {

namespace {

constexpr auto Digits = "0123456789ABCDEF"sv;

constexpr std::array<int, 3> SuidWidths{5, 3, 6}; // digits of WACN, System and Unit
constexpr int SuidDigits = 14;

bool consistsOf(std::string_view text, std::string_view characters)
{
    return text.find_first_not_of(characters) == std::string_view::npos;
}

quint64 ones(int digits)
{
    return (quint64{1} << 4 * digits) - 1; // of fewer than 16 digits
}

// At most 15 hexadecimal digits.
quint64 number(std::string_view digits)
{
    quint64 value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    return value;
}

} // namespace

Search::Search(const QString &newText)
    : text(newText.trimmed().toUtf8().toUpper().toStdString()), hasColons(text.find(':') != std::string::npos)
{
    if (consistsOf(text, Digits) && text.size() <= SuidDigits) {
        const auto typed = static_cast<int>(text.size());
        const int missing = SuidDigits - typed;
        suids.append({number(text) << 4 * missing, ones(typed) << 4 * missing});
    }
    readSuid('/');
    readSuid('.');
}

// A number in front of a separator is that number. The last may be that number, or its beginning as it is
// written with all its digits.
void Search::readSuid(char separator)
{
    quint64 value = 0;
    quint64 mask = 0;
    int below = SuidDigits; // digits behind the current number
    std::string_view rest = text;
    for (const int width : SuidWidths) {
        below -= width;
        const size_t end = rest.find(separator);
        const std::string_view field = rest.substr(0, end);
        const auto typed = static_cast<int>(field.size());
        if (typed > width || !consistsOf(field, Digits)) {
            return;
        }
        if (end == std::string_view::npos) {
            if (width == SuidWidths[0]) {
                return; // no separator at all: digits alone
            }
            const int missing = width - typed + below;
            suids.append({value | number(field) << 4 * missing, mask | ones(typed) << 4 * missing});
            suids.append({value | number(field) << 4 * below, mask | ones(width) << 4 * below});
            return;
        }
        if (typed == 0) {
            return;
        }
        value |= number(field) << 4 * below;
        mask |= ones(width) << 4 * below;
        rest.remove_prefix(end + 1);
    }
}

bool Search::matches(const QMR::Esn &esn, const QMR::Suid &suid, quint32 address) const
{
    return matchesSuid(suid) || matchesEsn(esn) || matchesAddress(address);
}

bool Search::matchesEsn(const QMR::Esn &esn) const
{
    std::array<char, 24> written;
    size_t size = 0;
    for (const quint8 byte : esn.bytes) {
        if (hasColons && size > 0) {
            written[size++] = ':';
        }
        written[size++] = Digits[byte >> 4];
        written[size++] = Digits[byte & 0x0F];
    }
    return std::string_view(written.data(), size).find(text) != std::string_view::npos;
}

bool Search::matchesSuid(const QMR::Suid &suid) const
{
    quint64 bits = 0;
    for (const quint8 byte : suid.bytes) {
        bits = bits << 8 | byte;
    }
    return std::any_of(suids.begin(), suids.end(),
                       [bits](const SuidBits &asked) { return (bits & asked.mask) == asked.value; });
}

bool Search::matchesAddress(quint32 address) const
{
    if (address == 0) {
        return false; // none
    }
    std::array<char, 16> written; // a "." behind each number
    size_t size = 0;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const quint32 number = address >> shift & 0xFF;
        if (number >= 100) {
            written[size++] = static_cast<char>('0' + number / 100);
        }
        if (number >= 10) {
            written[size++] = static_cast<char>('0' + number / 10 % 10);
        }
        written[size++] = static_cast<char>('0' + number % 10);
        written[size++] = '.';
    }
    return std::string_view(written.data(), size - 1).starts_with(text);
}

} // namespace Follow
