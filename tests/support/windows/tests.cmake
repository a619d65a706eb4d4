# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# What the system test asks the service manager with.
add_executable(servicecontrol ${CMAKE_CURRENT_LIST_DIR}/servicecontrol.cpp)
target_link_libraries(servicecontrol PRIVATE quillmere_options Qt6::Core)
set_target_properties(servicecontrol PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${QUILLMERE_TEST_FOLDER})
