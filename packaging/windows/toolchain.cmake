# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# Windows x64 with Debian's mingw-w64 (posix threads, which std::mutex and std::thread need).
# Used twice: to build Qt itself, and as QT_CHAINLOAD_TOOLCHAIN_FILE behind that Qt's qt.toolchain.cmake.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Programs come from this machine; headers and libraries never do.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The stack protector's canary comes from the system's random numbers (libssp, linked statically). Control-flow
# protection marks indirect branch targets; this compiler has no Control Flow Guard. No folder of the machine that
# builds may reach the binary, or two builds would differ.
set(quillmere_flags "-fstack-protector-strong -fcf-protection=full -ffunction-sections -fdata-sections")
string(APPEND quillmere_flags " -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=build")
if(CMAKE_TOOLCHAIN_FILE MATCHES "^(.*)/lib/cmake/Qt6/qt\\.toolchain\\.cmake$")
    string(APPEND quillmere_flags " -ffile-prefix-map=${CMAKE_MATCH_1}=qt")
endif()
set(CMAKE_C_FLAGS_INIT "${quillmere_flags}")
set(CMAKE_CXX_FLAGS_INIT "${quillmere_flags}")
unset(quillmere_flags)

# -static takes libgcc, libstdc++, winpthread and libssp in, so that only the system's own DLLs are imported.
string(CONCAT CMAKE_EXE_LINKER_FLAGS_INIT
    "-static -fstack-protector-strong -Wl,--gc-sections -Wl,--no-insert-timestamp"
    " -Wl,--dynamicbase -Wl,--high-entropy-va -Wl,--nxcompat")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${CMAKE_EXE_LINKER_FLAGS_INIT}")
