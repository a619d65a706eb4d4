// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/linux/keysequence.h"

#include <optional>

namespace WatchTool {

namespace {

constexpr char Escape = '\033';
constexpr qsizetype LongestSequence = 32;

constexpr Key key(Key::Code code)
{
    return {code};
}

// Of a sequence's last byte.
std::optional<Key> lettered(char letter)
{
    switch (letter) {
    case 'A':
        return key(Key::Code::Up);
    case 'B':
        return key(Key::Code::Down);
    case 'F':
        return key(Key::Code::End);
    case 'H':
        return key(Key::Code::Home);
    default:
        return std::nullopt;
    }
}

// "5" or "5;2": the second number is of Shift and its like.
std::optional<Key> numbered(const QByteArray &parameters)
{
    switch (parameters.split(';').first().toInt()) {
    case 1:
    case 7:
        return key(Key::Code::Home);
    case 4:
    case 8:
        return key(Key::Code::End);
    case 5:
        return key(Key::Code::PageUp);
    case 6:
        return key(Key::Code::PageDown);
    default:
        return std::nullopt;
    }
}

std::optional<Key> single(char byte)
{
    switch (byte) {
    case '\r':
    case '\n':
        return key(Key::Code::Enter);
    case '\b':
    case '\x7F':
        return key(Key::Code::Backspace);
    default:
        return byte >= ' ' && byte < '\x7F' ? std::optional(Key{Key::Code::Character, QLatin1Char(byte)})
                                            : std::nullopt;
    }
}

// A whole sequence.
std::optional<Key> known(const QByteArray &sequence)
{
    if (sequence[2] == '[') {
        return std::nullopt;
    }
    return sequence.endsWith('~') ? numbered(sequence.mid(2).chopped(1)) : lettered(sequence.back());
}

// The size of the sequence that bytes begin with; 0: it goes on behind them. The console of Linux has a
// second
// '[' in some.
qsizetype sequenceSize(const QByteArray &bytes)
{
    if (bytes.size() < 3) {
        return 0;
    }
    if (bytes[1] == 'O') {
        return 3;
    }
    qsizetype last = bytes[2] == '[' ? 3 : 2;
    while (last < bytes.size() && bytes[last] >= ' ' && bytes[last] < '@') {
        ++last;
    }
    return last < bytes.size() || last >= LongestSequence ? last + 1 : 0;
}

} // namespace

QList<Key> KeySequence::take(const QByteArray &bytes)
{
    QList<Key> keys;
    pending += bytes;
    while (!pending.isEmpty()) {
        qsizetype size = 1;
        std::optional<Key> found;
        if (pending[0] != Escape) {
            found = single(pending[0]);
        } else if (pending.size() == 1) {
            break;
        } else if (pending[1] != '[' && pending[1] != 'O') {
            found = key(Key::Code::Escape);
        } else {
            size = sequenceSize(pending);
            if (size == 0) {
                break;
            }
            found = known(pending.left(size));
        }
        if (found) {
            keys.append(*found);
        }
        pending.remove(0, size);
    }
    return keys;
}

QList<Key> KeySequence::end()
{
    const bool isKey = !pending.isEmpty();
    pending.clear();
    return isKey ? QList<Key>{key(Key::Code::Escape)} : QList<Key>();
}

} // namespace WatchTool
