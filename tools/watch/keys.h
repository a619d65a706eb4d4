// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/watch/key.h"

#include <QtGlobal>

#include <functional>
#include <memory>

namespace WatchTool {

// The keyboard of the terminal that is standard input: each key as it is pressed, and nothing of it is shown.
// Ctrl-C is none of them: it interrupts as ever. When the object goes, the terminal has the settings that it
// had.
class Keys
{
public:
    using OnKey = std::function<void(const Key &)>;

    // Null where standard input is no terminal.
    static std::unique_ptr<Keys> create(OnKey onKey);

    virtual ~Keys() = default;
    Q_DISABLE_COPY_MOVE(Keys)

    // Takes the keyboard, also when somebody else has changed its settings meanwhile; leaves it.
    virtual void begin() = 0;
    virtual void end() = 0;

protected:
    Keys() = default;
};

} // namespace WatchTool
