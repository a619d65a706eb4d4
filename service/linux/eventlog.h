// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The three event-log functions, over whatever sink this process writes its records to.
#pragma once

#include "service/scm.h"

namespace Linux {

Scm::Handle registerEventSource(const Scm::Char *server, const Scm::Char *source);
Scm::Bool reportEvent(Scm::Handle log, Scm::Word type, Scm::Word category, Scm::Dword id, void *userSid,
                      Scm::Word stringCount, Scm::Dword dataSize, const Scm::Char **strings, void *data);
Scm::Bool deregisterEventSource(Scm::Handle log);

} // namespace Linux
