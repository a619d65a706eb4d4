// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QStringList>

#include <functional>

namespace WatchTool {

struct ScreenSize
{
    int columns = 80;
    int rows = 24;

    bool operator==(const ScreenSize &) const = default;
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

    // Nothing is written where the lines are there already. False: they could not be written.
    bool show(const QStringList &lines);
    // Somebody else may have written to it.
    void forget() { shown.clear(); }

private:
    // What the platform needs for control sequences; gives what undoes it.
    static std::function<void()> prepare();

    const std::function<void()> undo;
    QStringList shown;
};

} // namespace WatchTool
