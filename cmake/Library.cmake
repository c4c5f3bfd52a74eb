# SPDX-License-Identifier: MIT
# The targets of the library. Its folders add their files with core_manage_room.
include(GenerateExportHeader)

# Everything of the library, once: libCore_Manage is linked from it, and so are the tests that look
# at parts which the library does not export.
add_library(core_manage_objects OBJECT)
set_target_properties(core_manage_objects PROPERTIES AUTOMOC ON)
target_include_directories(core_manage_objects PUBLIC "${PROJECT_BINARY_DIR}/core")
target_compile_definitions(core_manage_objects PRIVATE Core_Manage_EXPORTS)
target_link_libraries(core_manage_objects
    PUBLIC Qt5::Core Qt5::Network Qt5::SerialPort Core_Manage::Host Threads::Threads
    PRIVATE core_manage_flags PkgConfig::Hidapi)

# An installed library takes its consumer's host: the expression keeps CMake from writing down the
# target that the name stands for here.
set(installed_host $<INSTALL_INTERFACE:Core_Manage::$<1:Host>>)

add_library(Core_Manage SHARED)
add_library(Core_Manage::Core_Manage ALIAS Core_Manage)
generate_export_header(Core_Manage
    BASE_NAME core_manage
    EXPORT_FILE_NAME "${PROJECT_BINARY_DIR}/core/core_manage_export.h")
set_target_properties(Core_Manage PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
target_compile_features(Core_Manage PUBLIC cxx_std_17)
target_sources(Core_Manage PUBLIC FILE_SET generated TYPE HEADERS
    BASE_DIRS "${PROJECT_BINARY_DIR}/core" FILES "${PROJECT_BINARY_DIR}/core/core_manage_export.h")
target_link_libraries(Core_Manage
    PUBLIC Qt5::Core Qt5::Network Qt5::SerialPort
        $<BUILD_INTERFACE:Core_Manage::Host> ${installed_host}
    PRIVATE $<BUILD_INTERFACE:core_manage_objects> $<BUILD_INTERFACE:core_manage_flags>
        $<BUILD_INTERFACE:core_manage_shared> PkgConfig::Hidapi Threads::Threads)
# A detached thread may still run the library's code while the host unloads it.
target_link_options(Core_Manage PRIVATE -Wl,-z,nodelete)
if(NOT CORE_MANAGE_SANITIZE AND NOT CORE_MANAGE_HOST_KIND STREQUAL "none")
    target_link_options(Core_Manage PRIVATE -Wl,-z,defs)
endif()

# core_manage_room([PUBLIC_HEADERS headers…] SOURCES files…): a folder of the library. Its public
# headers are installed under their plain names.
function(core_manage_room)
    cmake_parse_arguments(room "" "" "PUBLIC_HEADERS;SOURCES" ${ARGN})
    target_sources(core_manage_objects PRIVATE ${room_PUBLIC_HEADERS} ${room_SOURCES})
    target_include_directories(core_manage_objects PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
    if(room_PUBLIC_HEADERS)
        cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME name)
        target_sources(Core_Manage PUBLIC FILE_SET ${name} TYPE HEADERS
            BASE_DIRS "${CMAKE_CURRENT_SOURCE_DIR}" FILES ${room_PUBLIC_HEADERS})
    endif()
endfunction()
