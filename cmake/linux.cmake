# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

function(quillmere_platform_executable target description)
endfunction()

set(QUILLMERE_SERVICE_USER "" CACHE STRING "The user that the installed unit runs the server as (empty: root)")

# The unit, from the template that -install fills in, with what it would have for the installed program.
function(quillmere_platform_install)
    set(NAME "Quill Mere")
    set(UNIT quill-mere)
    set(DESCRIPTION "${PROJECT_DESCRIPTION}")
    set(COMMAND ":\"${CMAKE_INSTALL_FULL_BINDIR}/quillmere\"")
    set(USER ${QUILLMERE_SERVICE_USER})
    set(STATE_DIRECTORY "\"Brackwater/${NAME}\"")
    set(PROTECT_HOME yes)
    file(READ ${PROJECT_SOURCE_DIR}/service/linux/unit.service.in text)
    # A setting without a value is left out: with an empty one it would be another setting.
    string(REPLACE "BindReadOnlyPaths=@VISIBLE_PROGRAM@\n" "" text "${text}")
    if(NOT USER)
        string(REPLACE "User=@USER@\n" "" text "${text}")
    endif()
    string(CONFIGURE "${text}" text @ONLY)
    file(WRITE ${PROJECT_BINARY_DIR}/${UNIT}.service "${text}")
    install(FILES ${PROJECT_BINARY_DIR}/${UNIT}.service DESTINATION lib/systemd/system COMPONENT server)
    # Each shell looks for a file by the name of the command, and each component has its own.
    set(completion ${PROJECT_SOURCE_DIR}/packaging/completion)
    foreach(program server/quillmere server/quillmere-check tools/quillmere-radio tools/quillmere-watch)
        get_filename_component(component ${program} DIRECTORY)
        get_filename_component(name ${program} NAME)
        install(FILES ${completion}/quillmere.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            RENAME ${name} COMPONENT ${component})
    endforeach()
    install(FILES ${completion}/_quillmere DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT server)
    install(FILES ${completion}/_quillmere DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
        RENAME _quillmere-tools COMPONENT tools)
endfunction()

function(quillmere_platform_test target)
endfunction()
