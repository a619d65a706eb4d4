# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

function(quillmere_platform_executable target description)
endfunction()

set(QUILLMERE_SERVICE_USER "" CACHE STRING "The user that the installed unit runs the server as (empty: root)")

# quillmere_unit(<component> <program> <name> <template> <description> <user>): the unit of a program, whose place is known only
# when it is installed.
function(quillmere_unit component program name template description user)
    install(CODE "
        set(QUILLMERE_UNIT_TEMPLATE \"${PROJECT_SOURCE_DIR}/${template}\")
        set(QUILLMERE_UNIT_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
        set(QUILLMERE_UNIT_PROGRAM \"${program}\")
        set(QUILLMERE_UNIT_NAME \"${name}\")
        set(QUILLMERE_UNIT_DESCRIPTION \"${description}\")
        set(QUILLMERE_UNIT_USER \"${user}\")" COMPONENT ${component})
    install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/installunit.cmake COMPONENT ${component})
endfunction()

function(quillmere_platform_install)
    quillmere_unit(server quillmere quill-mere service/linux/unit.service.in "${PROJECT_DESCRIPTION}"
        "${QUILLMERE_SERVICE_USER}")
    quillmere_unit(monitor quillmere-monitor quillmere-monitor packaging/systemd/quillmere-monitor.service.in
        "Quill Mere, the radios as a page and as metrics" "")
    # Each shell looks for a file by the name of the command, and each component has its own.
    set(completion ${PROJECT_SOURCE_DIR}/packaging/completion)
    foreach(program server/quillmere server/quillmere-check tools/quillmere-radio tools/quillmere-watch
            monitor/quillmere-monitor)
        get_filename_component(component ${program} DIRECTORY)
        get_filename_component(name ${program} NAME)
        install(FILES ${completion}/quillmere.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            RENAME ${name} COMPONENT ${component})
    endforeach()
    install(FILES ${completion}/_quillmere DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT server)
    foreach(component tools monitor)
        install(FILES ${completion}/_quillmere DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
            RENAME _quillmere-${component} COMPONENT ${component})
    endforeach()
endfunction()

function(quillmere_platform_test target)
endfunction()
