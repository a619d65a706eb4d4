# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
#
# Run by `cmake --install`, whose prefix is known only then: writes a program's unit. The server's is the one that -install
# would write for the installed program. QUILLMERE_UNIT_... come from linux.cmake.

cmake_policy(PUSH)
cmake_policy(VERSION 3.25)
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE prefix)
if("$ENV{DESTDIR}" STREQUAL "")
    file(REAL_PATH "${prefix}" prefix) # the sandbox hides folders by where they really are
endif()
cmake_path(ABSOLUTE_PATH QUILLMERE_UNIT_BINDIR BASE_DIRECTORY "${prefix}" NORMALIZE OUTPUT_VARIABLE folder)
set(program "${folder}/${QUILLMERE_UNIT_PROGRAM}")
string(ASCII 1 first)
string(ASCII 31 last)
string(ASCII 127 delete)
if(program MATCHES "[][\"'\\;${first}-${last}${delete}]")
    message(FATAL_ERROR "systemd takes no program of this name: ${program}; quillmere -install knows a way")
endif()
string(REPLACE "%" "%%" quoted "\"${program}\"")

set(NAME "Quill Mere")
set(UNIT ${QUILLMERE_UNIT_NAME})
set(DESCRIPTION "${QUILLMERE_UNIT_DESCRIPTION}")
set(QUOTED "${quoted}")
set(COMMAND ":${quoted}")
set(USER "${QUILLMERE_UNIT_USER}")
set(STATE_DIRECTORY "\"Brackwater/${NAME}\"")
set(PROTECT_HOME yes)
set(VISIBLE_PROGRAM "")
# Where the sandbox hides the program, it is let in by name.
if(program MATCHES "^/(home|root|run/user|tmp|var/tmp)/")
    set(PROTECT_HOME tmpfs)
    set(VISIBLE_PROGRAM "${quoted}")
endif()

file(READ ${QUILLMERE_UNIT_TEMPLATE} text)
# A setting without a value is left out: with an empty one it would be another setting.
foreach(setting User=@USER@ BindReadOnlyPaths=@VISIBLE_PROGRAM@)
    string(REGEX REPLACE "^.*@(.*)@$" "\\1" value ${setting})
    if("${${value}}" STREQUAL "")
        string(REPLACE "${setting}\n" "" text "${text}")
    endif()
endforeach()
string(CONFIGURE "${text}" text @ONLY)
set(unit "$ENV{DESTDIR}${prefix}/lib/systemd/system/${UNIT}.service")
message(STATUS "Installing: ${unit}")
file(WRITE "${unit}" "${text}")
file(CHMOD "${unit}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${prefix}/lib/systemd/system/${UNIT}.service")
cmake_policy(POP)
