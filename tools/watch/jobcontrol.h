// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QtGlobal>

#include <functional>
#include <memory>

namespace WatchTool {

// A shell's job control: whether the terminal is ours, and the moments when it changes hands.
class JobControl
{
public:
    // Called in the event loop: the process is about to be stopped by who sits at the terminal; and goes on,
    // in the foreground or behind it, whoever stopped it.
    struct Handlers
    {
        std::function<void()> stopping;
        std::function<void()> goingOn;
    };

    // One at a time. Null where there is none: the terminal is always ours then.
    static std::unique_ptr<JobControl> create(Handlers handlers);

    virtual ~JobControl() = default;
    Q_DISABLE_COPY_MOVE(JobControl)

    virtual bool isForeground() const = 0;

protected:
    JobControl() = default;
};

} // namespace WatchTool
