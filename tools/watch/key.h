// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QChar>

namespace WatchTool {

// What has been pressed.
struct Key
{
    enum class Code { Character, Up, Down, PageUp, PageDown, Home, End, Enter, Escape, Backspace };

    Code code = Code::Character;
    QChar character = {}; // printable ASCII

    bool operator==(const Key &) const = default;
};

} // namespace WatchTool
