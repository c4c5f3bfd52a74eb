# SPDX-License-Identifier: MIT
# Chooses where the host's records, queues and utility functions come from.
#
# Whatever the choice, the target Core_Manage::Host carries it; libCore_Manage never contains a copy.
#   1. The enclosing project already defines a target Core_Manage::Host: it is used as it is.
#   2. CORE_MANAGE_HOST_INCLUDE_DIR and CORE_MANAGE_HOST_LIBRARY name the host's headers and library.
#   3. CORE_MANAGE_HOST=none: only headers are used (CORE_MANAGE_HOST_INCLUDE_DIR, or the reference
#      host's); the symbols stay open for the program that loads libCore_Manage.
#   4. Otherwise the reference host in host/ is built as a shared library of its own.

set(CORE_MANAGE_HOST "" CACHE STRING "Empty: as found; none: leave the host's symbols open")
set_property(CACHE CORE_MANAGE_HOST PROPERTY STRINGS "" none)
set(CORE_MANAGE_HOST_INCLUDE_DIR "" CACHE PATH "Directory of a real host's headers")
set(CORE_MANAGE_HOST_LIBRARY "" CACHE FILEPATH "A real host's shared library")

set(CORE_MANAGE_HOST_KIND target)
if(CORE_MANAGE_HOST AND NOT CORE_MANAGE_HOST STREQUAL "none")
    message(FATAL_ERROR "CORE_MANAGE_HOST is \"${CORE_MANAGE_HOST}\": leave it empty or set it to none")
endif()
if(NOT TARGET Core_Manage::Host)
    if(CORE_MANAGE_HOST STREQUAL "none")
        if(CORE_MANAGE_HOST_LIBRARY)
            message(FATAL_ERROR "CORE_MANAGE_HOST=none and CORE_MANAGE_HOST_LIBRARY exclude each other")
        endif()
        set(CORE_MANAGE_HOST_KIND none)
        if(NOT CORE_MANAGE_HOST_INCLUDE_DIR)
            add_subdirectory(host)
        endif()
    elseif(CORE_MANAGE_HOST_LIBRARY OR CORE_MANAGE_HOST_INCLUDE_DIR)
        set(CORE_MANAGE_HOST_KIND library)
        if(NOT EXISTS "${CORE_MANAGE_HOST_LIBRARY}" OR IS_DIRECTORY "${CORE_MANAGE_HOST_LIBRARY}")
            message(FATAL_ERROR "CORE_MANAGE_HOST_LIBRARY is \"${CORE_MANAGE_HOST_LIBRARY}\": no such file")
        endif()
        if(NOT CORE_MANAGE_HOST_INCLUDE_DIR)
            message(FATAL_ERROR
                "CORE_MANAGE_HOST_LIBRARY needs CORE_MANAGE_HOST_INCLUDE_DIR, the directory of its headers")
        endif()
    else()
        set(CORE_MANAGE_HOST_KIND reference)
        add_subdirectory(host)
    endif()
    if(CORE_MANAGE_HOST_INCLUDE_DIR AND NOT EXISTS "${CORE_MANAGE_HOST_INCLUDE_DIR}/biz_cmdswork.h")
        message(FATAL_ERROR
            "CORE_MANAGE_HOST_INCLUDE_DIR is \"${CORE_MANAGE_HOST_INCLUDE_DIR}\": biz_cmdswork.h is not there")
    endif()
endif()

if(CORE_MANAGE_HOST_KIND STREQUAL "library")
    add_library(Core_Manage::Host SHARED IMPORTED GLOBAL)
    set_target_properties(Core_Manage::Host PROPERTIES
        IMPORTED_LOCATION "${CORE_MANAGE_HOST_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${CORE_MANAGE_HOST_INCLUDE_DIR}")
elseif(CORE_MANAGE_HOST_KIND STREQUAL "none")
    add_library(core_manage_host_headers INTERFACE)
    if(CORE_MANAGE_HOST_INCLUDE_DIR)
        target_include_directories(core_manage_host_headers INTERFACE
            $<BUILD_INTERFACE:${CORE_MANAGE_HOST_INCLUDE_DIR}>)
    else()
        target_include_directories(core_manage_host_headers INTERFACE
            $<BUILD_INTERFACE:$<TARGET_PROPERTY:Core_ManageHost,INTERFACE_INCLUDE_DIRECTORIES>>)
    endif()
    add_library(Core_Manage::Host ALIAS core_manage_host_headers)
elseif(CORE_MANAGE_HOST_KIND STREQUAL "reference")
    add_library(Core_Manage::Host ALIAS Core_ManageHost)
endif()
message(STATUS "Core_Manage: host library: ${CORE_MANAGE_HOST_KIND}")
