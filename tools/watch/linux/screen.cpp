// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace WatchTool {

std::function<void()> Screen::prepare()
{
    return [] {};
}

ScreenSize Screen::size()
{
    winsize window{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) {
        return {};
    }
    return {window.ws_col, window.ws_row};
}

} // namespace WatchTool
