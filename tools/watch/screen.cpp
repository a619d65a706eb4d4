// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/screen.h"

#include "tools/console.h"

using namespace Qt::StringLiterals;

namespace WatchTool {

Screen::Screen() : undo(prepare())
{
    Console::write(u"\033[?1049h\033[?25l"_s); // the alternate screen, no cursor
}

Screen::~Screen()
{
    Console::write(u"\033[?25h\033[?1049l"_s);
    undo();
}

bool Screen::isUsable()
{
    return Console::isTerminalOutput() && qgetenv("TERM") != "dumb";
}

bool Screen::hasColours()
{
    return qEnvironmentVariableIsEmpty("NO_COLOR");
}

bool Screen::show(const QStringList &lines)
{
    if (lines == shown) {
        return true;
    }
    shown = lines;
    return Console::write(u"\033[H"_s + lines.join(u"\033[K\r\n"_s) + u"\033[K\033[J"_s);
}

} // namespace WatchTool
