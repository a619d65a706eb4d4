# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

enable_language(RC)

# The bin folder is what goes to a server: no tests in it.
set(QUILLMERE_TEST_FOLDER ${PROJECT_BINARY_DIR}/tests/bin)

# Version resource and manifest; the program that writes event records has the message table for them too.
function(quillmere_platform_executable target description)
    set(folder ${PROJECT_SOURCE_DIR}/packaging/windows)
    configure_file(${folder}/executable.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc @ONLY)
    target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
    target_include_directories(${target} PRIVATE $<$<COMPILE_LANGUAGE:RC>:${folder}>)
    set_property(SOURCE ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc PROPERTY OBJECT_DEPENDS ${folder}/executable.manifest)
    # What it is really linked with, for the bill of materials.
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/maps)
    target_link_options(${target} PRIVATE -Wl,-Map=${PROJECT_BINARY_DIR}/maps/${target}.map)
    # windres does not tell of what a resource file takes in.
    set(messages ${PROJECT_SOURCE_DIR}/service/windows/messages)
    set_property(SOURCE ${messages}.rc PROPERTY OBJECT_DEPENDS ${messages}.bin)
    # Tests look for it in their own folder.
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E make_directory ${QUILLMERE_TEST_FOLDER}
        COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:${target}> ${QUILLMERE_TEST_FOLDER})
endfunction()

function(quillmere_platform_install)
endfunction()

# Every test has the one common data folder of its Wine.
function(quillmere_platform_test target)
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${QUILLMERE_TEST_FOLDER})
    set_tests_properties(${target} PROPERTIES RESOURCE_LOCK common-data-folder)
endfunction()
