# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

target_sources(quillmere_service PRIVATE
    windows/eventsource.cpp
    windows/platform.cpp)

# The message table, for the executable that has the process entry.
target_sources(quillmere_entry INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/windows/messages.rc)
target_include_directories(quillmere_entry INTERFACE $<$<COMPILE_LANGUAGE:RC>:${CMAKE_CURRENT_SOURCE_DIR}/windows>)
