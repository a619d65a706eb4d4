// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/scm.h"

// Event records cost the benchmark of the server's own work one call each and go nowhere.
inline void silenceLog()
{
    Scm::functions.openScManager = [](const Scm::Char *, const Scm::Char *, Scm::Dword) -> Scm::Handle {
        return nullptr;
    };
    Scm::functions.registerEventSource = [](const Scm::Char *, const Scm::Char *) -> Scm::Handle {
        static int log = 0;
        return &log;
    };
    Scm::functions.reportEvent = [](Scm::Handle, Scm::Word, Scm::Word, Scm::Dword, void *, Scm::Word,
                                    Scm::Dword, const Scm::Char **, void *) -> Scm::Bool { return 1; };
    Scm::functions.deregisterEventSource = [](Scm::Handle) -> Scm::Bool { return 1; };
}
