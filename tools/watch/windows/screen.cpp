// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/screen.h"

#include <windows.h>

namespace WatchTool {

std::function<void()> Screen::prepare()
{
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (GetConsoleMode(output, &mode) == 0) {
        return [] {};
    }
    SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    return [output, mode] { SetConsoleMode(output, mode); };
}

ScreenSize Screen::size()
{
    CONSOLE_SCREEN_BUFFER_INFO buffer{};
    if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &buffer) == 0) {
        return {};
    }
    return {buffer.srWindow.Right - buffer.srWindow.Left + 1,
            buffer.srWindow.Bottom - buffer.srWindow.Top + 1};
}

} // namespace WatchTool
