# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# quillmere_options: the language standard, the warnings, Qt's strict switches and the hardening flags of every target.
# Warnings are errors in our presets (CMAKE_COMPILE_WARNING_AS_ERROR), and for nobody who builds without them.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)

add_library(quillmere_options INTERFACE)
target_compile_features(quillmere_options INTERFACE cxx_std_20)
target_include_directories(quillmere_options INTERFACE ${PROJECT_SOURCE_DIR})

target_compile_definitions(quillmere_options INTERFACE
    QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_NARROWING_CONVERSIONS_IN_CONNECT QT_NO_FOREACH
    QT_USE_QSTRINGBUILDER QT_DISABLE_DEPRECATED_BEFORE=0x060400)

# quillmere_flags(<flag>...): those of them that the compiler knows.
function(quillmere_flags)
    foreach(flag ${ARGN})
        string(MAKE_C_IDENTIFIER "QUILLMERE_TAKES${flag}" known)
        check_cxx_compiler_flag(${flag} ${known})
        if(${known})
            target_compile_options(quillmere_options INTERFACE ${flag})
        endif()
    endforeach()
endfunction()

# quillmere_hardening(<subject> <flag>): the flag, unless whoever builds has flags of their own on the subject, as
# distributions do.
function(quillmere_hardening subject flag)
    if(NOT CMAKE_CXX_FLAGS MATCHES ${subject})
        quillmere_flags(${flag})
    endif()
endfunction()

function(quillmere_link_hardening subject flag)
    string(MAKE_C_IDENTIFIER "QUILLMERE_LINKS${flag}" known)
    if(NOT CMAKE_EXE_LINKER_FLAGS MATCHES ${subject})
        check_linker_flag(CXX ${flag} ${known})
        if(${known})
            target_link_options(quillmere_options INTERFACE ${flag})
        endif()
    endif()
endfunction()

if(MSVC)
    # Untried: this compiler has not been at hand.
    target_compile_options(quillmere_options INTERFACE /W4 /permissive- /utf-8 /Zc:__cplusplus /guard:cf)
    target_link_options(quillmere_options INTERFACE /guard:cf /MANIFEST:NO) # the manifest is in the resources
    return()
endif()

quillmere_flags(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wundef -Wnull-dereference -Wimplicit-fallthrough)

quillmere_hardening(stack-protector -fstack-protector-strong)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    quillmere_hardening(branch-protection -mbranch-protection=standard)
else()
    quillmere_hardening(cf-protection -fcf-protection)
endif()
if(QUILLMERE_SANITIZE)
    # Without the check of virtual tables: it reads memory through a pipe and so reports every object once the process has
    # no descriptor left, which tests bring about on purpose.
    target_compile_options(quillmere_options INTERFACE
        -fsanitize=${QUILLMERE_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    target_link_options(quillmere_options INTERFACE -fsanitize=${QUILLMERE_SANITIZE})
    target_compile_definitions(quillmere_options INTERFACE QUILLMERE_SANITIZED)
elseif(NOT CMAKE_CXX_FLAGS MATCHES _FORTIFY_SOURCE)
    # FORTIFY needs the optimiser and blinds the sanitizers. Some compilers have it by themselves, and more of it.
    set(CMAKE_REQUIRED_FLAGS -O2)
    check_cxx_source_compiles("#ifndef _FORTIFY_SOURCE\n#error\n#endif\nint main() {}" QUILLMERE_IS_FORTIFIED)
    unset(CMAKE_REQUIRED_FLAGS)
    if(NOT QUILLMERE_IS_FORTIFIED)
        target_compile_definitions(quillmere_options INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
    endif()
endif()

if(QUILLMERE_COVERAGE)
    # Counted by the machine's own additions, which are exact where threads run too.
    target_compile_options(quillmere_options INTERFACE --coverage -fprofile-abs-path -fprofile-update=atomic)
    target_link_options(quillmere_options INTERFACE --coverage)
endif()

if(NOT WIN32)
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    # A library's precompiled header serves programs too, if they are compiled alike. Qt asks for it on some processors only.
    get_target_property(options_of_qt Qt6::Core INTERFACE_COMPILE_OPTIONS)
    if(NOT "-fPIC" IN_LIST options_of_qt)
        target_compile_options(quillmere_options INTERFACE -fPIC)
    endif()
    target_link_options(quillmere_options INTERFACE $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)
    quillmere_link_hardening(-z,relro -Wl,-z,relro)
    quillmere_link_hardening(-z,now -Wl,-z,now)
    quillmere_link_hardening(-z,noexecstack -Wl,-z,noexecstack)
    quillmere_hardening(stack-clash-protection -fstack-clash-protection)
endif()
