# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# Tests that only Linux has.
add_subdirectory(fuzz)
add_subdirectory(unit/linux)
add_subdirectory(integration/linux)
add_subdirectory(system)
add_subdirectory(system/guide)
add_subdirectory(system/systemd)

# What of the monitor's page is no matter of a browser.
find_program(QUILLMERE_NODE NAMES node nodejs REQUIRED)
mark_as_advanced(QUILLMERE_NODE)
file(GLOB page_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/unit/page/*.test.mjs)
add_test(NAME page_logic COMMAND ${QUILLMERE_NODE} --test ${page_tests})
