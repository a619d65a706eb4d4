// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QStringList>

namespace WatchTool {

struct ScreenSize
{
    int columns = 80;
    int rows = 24;
};

// The whole terminal of standard output while the object lives; afterwards it is as it was.
class Screen
{
public:
    Screen();
    ~Screen();
    Q_DISABLE_COPY_MOVE(Screen)

    // Standard output is a terminal that can be written to at any place.
    static bool isUsable();
    // NO_COLOR is not set.
    static bool hasColours();
    static ScreenSize size(); // of now: a window changes

    static void show(const QStringList &lines);

private:
    static void prepare(); // what the platform needs for control sequences
};

} // namespace WatchTool
