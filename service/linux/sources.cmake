# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

find_package(PkgConfig REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)

target_sources(quillmere_service PRIVATE
    linux/eventsink.cpp
    linux/eventlog.cpp
    linux/platform.cpp)
target_link_libraries(quillmere_service PRIVATE PkgConfig::SYSTEMD)
