# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

find_package(PkgConfig REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET GLOBAL libsystemd)

# The unit's text as a string of the program.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS linux/unit.service.in)
file(READ linux/unit.service.in QUILLMERE_UNIT)
file(CONFIGURE OUTPUT unittemplate.cpp @ONLY CONTENT [[
#include "service/linux/unitfile.h"

const char *const Linux::UnitTemplate = R"unit(@QUILLMERE_UNIT@)unit";
]])

target_sources(quillmere_service PRIVATE
    linux/controlsocket.cpp
    linux/dispatcher.cpp
    linux/errors.cpp
    linux/eventlog.cpp
    linux/platform.cpp
    linux/services.cpp
    linux/startparameters.cpp
    linux/stopsignals.cpp
    linux/systemd.cpp
    linux/systemlog.cpp
    linux/unitfile.cpp
    ${CMAKE_CURRENT_BINARY_DIR}/unittemplate.cpp)
find_package(Threads REQUIRED)
target_link_libraries(quillmere_service PRIVATE Threads::Threads)
target_link_libraries(quillmere_service PRIVATE PkgConfig::SYSTEMD)
