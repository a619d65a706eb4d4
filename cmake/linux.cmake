# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

function(quillmere_platform_executable target description)
endfunction()

set(QUILLMERE_SERVICE_USER "" CACHE STRING "The user that the installed unit runs the server as (empty: root)")

function(quillmere_platform_install)
    # The unit names the program, whose place is known only when it is installed.
    install(CODE "
        set(QUILLMERE_UNIT_TEMPLATE \"${PROJECT_SOURCE_DIR}/service/linux/unit.service.in\")
        set(QUILLMERE_UNIT_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
        set(QUILLMERE_UNIT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
        set(QUILLMERE_UNIT_USER \"${QUILLMERE_SERVICE_USER}\")" COMPONENT server)
    install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/installunit.cmake COMPONENT server)
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
