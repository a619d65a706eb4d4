# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# The one place that chooses a platform folder; sources never ask which platform they are on. The platform's file here
# defines:
#   quillmere_platform_executable(<target> <description>)   what an executable that is delivered needs beyond its
#                                                           libraries
#   quillmere_platform_install()                            what is installed beside the executables
#   quillmere_platform_test(<target>)                       what a test needs beside its CTest entry
if(WIN32)
    set(QUILLMERE_PLATFORM windows)
else()
    set(QUILLMERE_PLATFORM linux)
endif()
include(cmake/${QUILLMERE_PLATFORM}.cmake)
