# SPDX-License-Identifier: MIT
# Flags of our own code, kept off the consumers: everything hangs on core_manage_flags (private).

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Installing leaves the room of the path that the build tree's programs name: no directory's length.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

option(CORE_MANAGE_WERROR "Turn compiler warnings into errors" OFF)
set(CORE_MANAGE_SANITIZE "" CACHE STRING "Value for -fsanitize, for instance address,undefined or thread")
option(CORE_MANAGE_COVERAGE "Measure test coverage" OFF)

add_library(core_manage_flags INTERFACE)
target_compile_options(core_manage_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments> # qCDebug without arguments
    $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage> # a source that another includes is no header
    $<$<BOOL:${CORE_MANAGE_WERROR}>:-Werror>)
target_compile_definitions(core_manage_flags INTERFACE QT_NO_KEYWORDS QT_NO_FOREACH)

if(CORE_MANAGE_SANITIZE)
    target_compile_options(core_manage_flags INTERFACE
        -fsanitize=${CORE_MANAGE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(core_manage_flags INTERFACE -fsanitize=${CORE_MANAGE_SANITIZE})
    if(CORE_MANAGE_SANITIZE MATCHES "undefined")
        # It reads an object through a pipe: with no descriptor left it would report a sound one.
        target_compile_options(core_manage_flags INTERFACE -fno-sanitize=vptr)
    endif()
else()
    target_compile_options(core_manage_flags INTERFACE
        -fstack-protector-strong -fstack-clash-protection
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
    target_link_options(core_manage_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
    include(CheckCXXCompilerFlag)
    check_cxx_compiler_flag(-fcf-protection CORE_MANAGE_HAS_CF_PROTECTION)
    if(CORE_MANAGE_HAS_CF_PROTECTION)
        target_compile_options(core_manage_flags INTERFACE -fcf-protection)
    endif()
endif()

# Of every shared library: exports its public classes only.
add_library(core_manage_shared INTERFACE)
target_link_options(core_manage_shared INTERFACE
    "LINKER:--version-script=${CMAKE_CURRENT_LIST_DIR}/exports.map")
set_target_properties(core_manage_shared PROPERTIES
    INTERFACE_LINK_DEPENDS "${CMAKE_CURRENT_LIST_DIR}/exports.map")

# Of every executable, besides core_manage_flags.
add_library(core_manage_executable INTERFACE)
if(CORE_MANAGE_SANITIZE STREQUAL "thread")
    target_sources(core_manage_executable INTERFACE "${CMAKE_CURRENT_LIST_DIR}/threadsuppressions.cpp")
endif()
# Of the library in a coverage build; everything is linked with what counts. Several threads count.
add_library(core_manage_counted INTERFACE)
if(CORE_MANAGE_COVERAGE)
    target_compile_options(core_manage_counted INTERFACE
        --coverage -fprofile-update=atomic "SHELL:-O0 -U_FORTIFY_SOURCE")
    target_link_options(core_manage_flags INTERFACE --coverage LINKER:-u,__gcov_dump) # for endofprocess.h
endif()
if(NOT CORE_MANAGE_SANITIZE AND NOT CORE_MANAGE_COVERAGE)
    # What is handed on names no directory of the machine that built it; gdb finds the sources when
    # it is started in the source directory. A compiler cache gives the compiler relative paths.
    file(RELATIVE_PATH source_from_build "${CMAKE_BINARY_DIR}" "${PROJECT_SOURCE_DIR}")
    string(REGEX REPLACE "/$" "" source_from_build "${source_from_build}")
    target_compile_options(core_manage_flags INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${source_from_build}=.>
        $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>
        $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${CMAKE_BINARY_DIR}=.>)
endif()
