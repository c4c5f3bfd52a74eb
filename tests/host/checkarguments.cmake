# SPDX-License-Identifier: MIT
# Arguments about the host that cannot be meant are refused when the project is configured:
#   cmake -DSOURCE_DIR=… -P checkarguments.cmake
function(refused expected)
    execute_process(COMMAND ${CMAKE_COMMAND} ${ARGN} -P "${SOURCE_DIR}/cmake/HostLibrary.cmake"
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}") # CMake breaks the lines of a message
    if(result EQUAL 0 OR NOT output MATCHES "${expected}")
        message(FATAL_ERROR "${ARGN} gave ${result}, expected \"${expected}\"\n${output}")
    endif()
endfunction()

set(host_headers "-DCORE_MANAGE_HOST_INCLUDE_DIR=${SOURCE_DIR}/tests/host/ownhost")
set(some_file "${CMAKE_CURRENT_LIST_FILE}")
refused("no such file" ${host_headers} "-DCORE_MANAGE_HOST_LIBRARY=${SOURCE_DIR}")
refused("no such file" ${host_headers} "-DCORE_MANAGE_HOST_LIBRARY=${SOURCE_DIR}/missing.so")
refused("no such file" ${host_headers})
refused("needs CORE_MANAGE_HOST_INCLUDE_DIR" "-DCORE_MANAGE_HOST_LIBRARY=${some_file}")
refused("biz_cmdswork.h is not there"
    "-DCORE_MANAGE_HOST_LIBRARY=${some_file}" "-DCORE_MANAGE_HOST_INCLUDE_DIR=${SOURCE_DIR}/docs")
refused("exclude each other" -DCORE_MANAGE_HOST=none "-DCORE_MANAGE_HOST_LIBRARY=${some_file}")
refused("leave it empty or set it to none" -DCORE_MANAGE_HOST=own)
