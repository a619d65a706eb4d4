// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// For what stands between the server and the system's calls: a library, or the test that the server is in.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>

#include <cstdarg>

// What a function of this name would have been without that: NEXT(open).
#define NEXT(name) interposing::next(&(name), #name)

namespace interposing {

template<typename Function>
Function *next(Function * /*self*/, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace interposing
