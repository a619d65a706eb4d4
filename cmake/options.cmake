# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# quillmere_options: the language standard, the warnings, Qt's strict switches and the hardening flags of every target.
add_library(quillmere_options INTERFACE)
target_compile_features(quillmere_options INTERFACE cxx_std_20)
target_include_directories(quillmere_options INTERFACE ${PROJECT_SOURCE_DIR})

target_compile_options(quillmere_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wformat=2 -Wundef -Wnull-dereference -Wimplicit-fallthrough -Werror)

target_compile_definitions(quillmere_options INTERFACE
    QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_NARROWING_CONVERSIONS_IN_CONNECT QT_NO_FOREACH
    QT_USE_QSTRINGBUILDER QT_DISABLE_DEPRECATED_BEFORE=0x060400)

target_compile_options(quillmere_options INTERFACE -fstack-protector-strong -fcf-protection)
if(QUILLMERE_SANITIZE)
    # Without the check of virtual tables: it reads memory through a pipe and so reports every object once the process has
    # no descriptor left, which tests bring about on purpose.
    target_compile_options(quillmere_options INTERFACE
        -fsanitize=${QUILLMERE_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    target_link_options(quillmere_options INTERFACE -fsanitize=${QUILLMERE_SANITIZE})
    target_compile_definitions(quillmere_options INTERFACE QUILLMERE_SANITIZED)
else()
    # FORTIFY needs the optimiser and blinds the sanitizers.
    target_compile_definitions(quillmere_options INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
endif()

if(QUILLMERE_COVERAGE)
    # Counted by the machine's own additions, which are exact where threads run too.
    target_compile_options(quillmere_options INTERFACE --coverage -fprofile-abs-path -fprofile-update=atomic)
    target_link_options(quillmere_options INTERFACE --coverage)
endif()

if(NOT WIN32)
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    target_link_options(quillmere_options INTERFACE
        $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie> -Wl,-z,relro,-z,now,-z,noexecstack)
    target_compile_options(quillmere_options INTERFACE -fstack-clash-protection)
endif()
