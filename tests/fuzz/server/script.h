// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QByteArrayView>

// Bytes that say what happens, read from the front so that a changed byte changes little of what comes before
// it. Beyond the end there are zeros.
class Script
{
public:
    explicit Script(QByteArrayView script) : rest(script) {}

    bool isOver() const { return rest.isEmpty(); }

    quint8 byte()
    {
        if (rest.isEmpty()) {
            return 0;
        }
        const auto first = static_cast<quint8>(rest.front());
        rest = rest.sliced(1);
        return first;
    }
    quint32 below(size_t bound) { return static_cast<quint32>(byte() % bound); }
    QByteArray bytes(qsizetype size)
    {
        const QByteArrayView taken = rest.first(std::min(size, rest.size()));
        rest = rest.sliced(taken.size());
        return taken.toByteArray();
    }

private:
    QByteArrayView rest;
};
