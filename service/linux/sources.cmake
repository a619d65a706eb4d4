# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

find_package(PkgConfig REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET GLOBAL libsystemd)

target_sources(quillmere_service PRIVATE
    linux/account.cpp
    linux/controlsocket.cpp
    linux/dispatcher.cpp
    linux/errors.cpp
    linux/eventlog.cpp
    linux/eventsink.cpp
    linux/platform.cpp
    linux/services.cpp
    linux/startparameters.cpp
    linux/stopsignals.cpp
    linux/systemd.cpp
    linux/unitfile.cpp)
find_package(Threads REQUIRED)
target_link_libraries(quillmere_service PRIVATE Threads::Threads)
target_link_libraries(quillmere_service PRIVATE PkgConfig::SYSTEMD)
