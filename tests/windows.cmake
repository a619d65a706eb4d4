# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# Tests that only Windows has.
quillmere_test(unit/windows/tst_lookup quillmere_service)

# What the system test asks the service manager with.
add_executable(servicecontrol support/windows/servicecontrol.cpp)
target_link_libraries(servicecontrol PRIVATE quillmere_options Qt6::Core)
# What stands in for the system's programs that the installer calls.
add_executable(commandrecorder support/windows/commandrecorder.cpp)
target_link_libraries(commandrecorder PRIVATE quillmere_options)
set_target_properties(servicecontrol commandrecorder PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${QUILLMERE_TEST_FOLDER})
target_link_libraries(quillmere_testsupport PRIVATE ws2_32)
