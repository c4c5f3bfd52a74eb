# SPDX-License-Identifier: MIT
# Exactly one host is in a program, the target Core_Manage::Host: two would both own the reply queue,
# its locks and the log.

# core_manage_take_reference_host([GLOBAL]): takes Core_Manage::ReferenceHost for the program's host.
macro(core_manage_take_reference_host)
    if(NOT TARGET Core_Manage::Host)
        add_library(Core_Manage::Host INTERFACE IMPORTED ${ARGN})
        set_target_properties(Core_Manage::Host PROPERTIES
            INTERFACE_LINK_LIBRARIES Core_Manage::ReferenceHost
            CORE_MANAGE_IS_REFERENCE ON)
    else()
        get_target_property(core_manage_is_reference Core_Manage::Host CORE_MANAGE_IS_REFERENCE)
        if(NOT core_manage_is_reference)
            message(FATAL_ERROR
                "Core_Manage: this program has a host already, the target Core_Manage::Host. The reference "
                "host would be a second one, and both would own the reply queue. Do not ask for both.")
        endif()
    endif()
endmacro()

# Called when the directory that brought the library is done: the host may be defined after it.
function(core_manage_check_host)
    if(NOT TARGET Core_Manage::Host)
        message(FATAL_ERROR
            "Core_Manage: this program has no host, which owns the records, the reply queue and the log. "
            "Define the target Core_Manage::Host with your own, or ask for the reference host: "
            "find_package(Core_Manage COMPONENTS ReferenceHost), or CORE_MANAGE_REFERENCE_HOST=ON "
            "where the library is a subdirectory.")
    endif()
endfunction()
