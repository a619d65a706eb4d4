// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/watch/key.h"

#include <QByteArray>
#include <QList>

namespace WatchTool {

// What a terminal sends for keys: characters, and sequences that begin with an escape, as the key Escape
// alone does. Sequences that it does not know are no keys.
class KeySequence
{
public:
    // In whatever pieces they come.
    QList<Key> take(const QByteArray &bytes);
    // Something has come that may go on.
    bool isWaiting() const { return !pending.isEmpty(); }
    // It does not go on: an escape was the key.
    QList<Key> end();

private:
    QByteArray pending;
};

} // namespace WatchTool
