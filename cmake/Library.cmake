# SPDX-License-Identifier: MIT
# The targets of the library. Its folders add their files with core_manage_room.

# Everything of the library, once: libCore_Manage is linked from it, and so are the tests that look
# at parts which the library does not export. The records are those of host/; every other host is
# held to them by core/hostcontract.h.
add_library(core_manage_objects OBJECT)
set_target_properties(core_manage_objects PROPERTIES AUTOMOC ON)
target_include_directories(core_manage_objects PUBLIC "${PROJECT_SOURCE_DIR}/host")
target_link_libraries(core_manage_objects
    PUBLIC Qt::Core Qt::Network Qt::SerialPort Threads::Threads
    PRIVATE core_manage_flags core_manage_counted PkgConfig::Hidapi)

add_library(Core_Manage SHARED)
add_library(Core_Manage::Core_Manage ALIAS Core_Manage)
set_target_properties(Core_Manage PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
target_compile_features(Core_Manage PUBLIC cxx_std_17)
# The host's symbols stay open, and no host is named: the consumer has one. The expression keeps
# CMake from writing down the target that the name stands for here.
target_link_libraries(Core_Manage
    PUBLIC Qt::Core Qt::Network Qt::SerialPort
    INTERFACE Core_Manage::$<1:Host>
    PRIVATE $<BUILD_INTERFACE:core_manage_objects> $<BUILD_INTERFACE:core_manage_flags>
        $<BUILD_INTERFACE:core_manage_shared> PkgConfig::Hidapi Threads::Threads)
# A detached thread may still run the library's code while the host unloads it.
target_link_options(Core_Manage PRIVATE -Wl,-z,nodelete)

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
