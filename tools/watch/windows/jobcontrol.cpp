// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/jobcontrol.h"

namespace WatchTool {

std::unique_ptr<JobControl> JobControl::create(Handlers)
{
    return nullptr;
}

} // namespace WatchTool
