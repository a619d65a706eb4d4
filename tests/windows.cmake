# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# Tests that only Windows has.
quillmere_test(unit/windows/tst_lookup quillmere_service)

# What the system test asks the service manager with.
add_executable(servicecontrol support/windows/servicecontrol.cpp)
target_link_libraries(servicecontrol PRIVATE quillmere_options Qt6::Core)
set_target_properties(servicecontrol PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${QUILLMERE_TEST_FOLDER})
target_link_libraries(quillmere_testsupport PRIVATE ws2_32)
