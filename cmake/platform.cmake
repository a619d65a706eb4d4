# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# The one place that chooses a platform folder; sources never ask which platform they are on.
if(WIN32)
    set(QUILLMERE_PLATFORM windows)
else()
    set(QUILLMERE_PLATFORM linux)
endif()

# What an executable of the server needs beyond its libraries on this platform.
function(quillmere_platform_executable target)
endfunction()
