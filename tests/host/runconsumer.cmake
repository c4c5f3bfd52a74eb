# SPDX-License-Identifier: MIT
# Builds and runs the consumer program in one of the ways a host can take part:
#   cmake -DWAY=installed|target|library|open -DSOURCE_DIR=… -DWORK_DIR=… -DBUILD_DIR=… -P runconsumer.cmake

set(here "${SOURCE_DIR}/tests/host")
set(consumer "-DCONSUMER_SOURCE=${here}/consumer/main.cpp")
set(own_host "-DOWN_HOST_DIR=${here}/ownhost")
set(common -G Ninja -DCMAKE_BUILD_TYPE=Release)
set(library_only -DCORE_MANAGE_TOOLS=OFF -DCORE_MANAGE_TESTS=OFF)
set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

function(build source directory)
    run(${CMAKE_COMMAND} -S "${source}" -B "${directory}" ${common} ${ARGN})
    run(${CMAKE_COMMAND} --build "${directory}")
endfunction()

set(host_argument own)
set(library_path "")
if(WAY STREQUAL "installed")
    run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
    build("${here}/projects/installed" "${WORK_DIR}/consumer" ${consumer} "-DCMAKE_PREFIX_PATH=${prefix}")
    set(host_argument reference)
    set(library_path "${prefix}/${LIBDIR}")
elseif(WAY STREQUAL "target")
    build("${here}/projects/target" "${WORK_DIR}/consumer" ${consumer} ${own_host}
        "-DLIBRARY_SOURCE_DIR=${SOURCE_DIR}")
elseif(WAY STREQUAL "library")
    build("${here}/projects/library" "${WORK_DIR}/host" ${own_host})
    build("${SOURCE_DIR}" "${WORK_DIR}/library" ${library_only}
        "-DCORE_MANAGE_HOST_INCLUDE_DIR=${here}/ownhost"
        "-DCORE_MANAGE_HOST_LIBRARY=${WORK_DIR}/host/libownhost.so")
    run(${CMAKE_COMMAND} --install "${WORK_DIR}/library" --prefix "${prefix}")
    build("${here}/projects/installed" "${WORK_DIR}/consumer" ${consumer} "-DCMAKE_PREFIX_PATH=${prefix}")
    set(library_path "${prefix}/${LIBDIR}:${WORK_DIR}/host")
elseif(WAY STREQUAL "open")
    build("${SOURCE_DIR}" "${WORK_DIR}/library" ${library_only} -DCORE_MANAGE_HOST=none
        "-DCORE_MANAGE_HOST_INCLUDE_DIR=${here}/ownhost")
    run(${CMAKE_COMMAND} --install "${WORK_DIR}/library" --prefix "${prefix}")
    build("${here}/projects/open" "${WORK_DIR}/consumer" ${consumer} ${own_host}
        "-DCMAKE_PREFIX_PATH=${prefix}")
    set(library_path "${prefix}/${LIBDIR}")
else()
    message(FATAL_ERROR "unknown WAY \"${WAY}\"")
endif()

run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${library_path}" "${WORK_DIR}/consumer/consumer" ${host_argument})
if(NOT output MATCHES "reply received")
    message(FATAL_ERROR "the consumer said: ${output}")
endif()
