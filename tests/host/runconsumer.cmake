# SPDX-License-Identifier: MIT
# Builds and runs the consumer program in one of the ways a host can take part:
#   cmake -DWAY=reference|target|library|program|refused -DSOURCE_DIR=… -DWORK_DIR=… … -P runconsumer.cmake
# What is installed is consumed twice, through the CMake package and through pkg-config. It is installed
# from BUILD_DIR, or is in PREFIX.
cmake_minimum_required(VERSION 3.22)

set(here "${SOURCE_DIR}/tests/host")
set(consumer "-DCONSUMER_SOURCE=${here}/consumer/main.cpp")
set(own_host "-DOWN_HOST_DIR=${here}/ownhost" -DQT_MAJOR=${QT_MAJOR})
set(prefix "${WORK_DIR}/prefix")
if(PREFIX)
    set(prefix "${PREFIX}")
endif()
set(installed "-DCMAKE_PREFIX_PATH=${prefix}")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

# Compiled quickly: what is looked at is how things fit together.
function(build source directory)
    run(${CMAKE_COMMAND} -S "${source}" -B "${directory}" -G Ninja -DCMAKE_BUILD_TYPE=Debug
        -DCMAKE_CXX_FLAGS_DEBUG= ${ARGN})
    run(${CMAKE_COMMAND} --build "${directory}")
endfunction()

function(refused message project)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -S "${here}/projects/${project}" -B "${WORK_DIR}/refused" -G Ninja
            --fresh ${consumer} ${own_host} ${ARGN}
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}") # CMake breaks the lines of a message
    if(result EQUAL 0 OR NOT output MATCHES "${message}")
        message(FATAL_ERROR "${project} ${ARGN} gave ${result}, expected \"${message}\"\n${output}")
    endif()
endfunction()

function(build_with_pkgconfig package)
    run(${CMAKE_COMMAND} -E env "PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig"
        ${PKG_CONFIG} --cflags --libs ${package})
    separate_arguments(flags UNIX_COMMAND "${output}")
    run(${CXX} ${ARGN} ${flags} -o "${WORK_DIR}/pkgconfig-consumer")
    set(flags "${flags}" PARENT_SCOPE)
endfunction()

function(check_headers)
    file(GLOB headers "${prefix}/include/core_manage/*.h" "${prefix}/include/core_manage/host/*.h")
    foreach(required core_osd_manage core_osd_tcpsocket core_udp hostcontract icorebase linkcapture host/biz_cmdswork)
        if(NOT "${prefix}/include/core_manage/${required}.h" IN_LIST headers)
            message(FATAL_ERROR "${required}.h is not installed")
        endif()
    endforeach()
    list(TRANSFORM headers PREPEND "#include \"")
    list(TRANSFORM headers APPEND "\"\n")
    file(WRITE "${WORK_DIR}/headers.cpp" ${headers})
    run(${CXX} -Wall -Wextra -Werror -fsyntax-only "${WORK_DIR}/headers.cpp" ${flags})
endfunction()

function(check_installed_files)
    foreach(file LICENSE README.md)
        if(NOT EXISTS "${prefix}/${DOCDIR}/${file}")
            message(FATAL_ERROR "${file} is not installed")
        endif()
    endforeach()
    execute_process(COMMAND grep -rlF "${SOURCE_DIR}" "${prefix}" OUTPUT_VARIABLE files)
    if(files AND NOT CONFIG STREQUAL "Debug")
        message(FATAL_ERROR "the source directory is named in ${files}")
    endif()
endfunction()

function(run_consumer program)
    run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${library_path}" "${WORK_DIR}/${program}" ${host_argument})
    if(NOT output MATCHES "reply received")
        message(FATAL_ERROR "the consumer said: ${output}")
    endif()
endfunction()

set(host_argument own)
set(library_path "${prefix}/${LIBDIR}")
if(BUILD_DIR AND NOT WAY STREQUAL "target")
    run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
endif()
if(WAY STREQUAL "reference")
    if(BUILD_DIR)
        check_installed_files()
    endif()
    build("${here}/projects/reference" "${WORK_DIR}/consumer" ${consumer} ${installed})
    build_with_pkgconfig("core_manage_host;core_manage_capture" -DWITH_CAPTURE "${here}/consumer/main.cpp")
    check_headers()
    set(host_argument reference)
elseif(WAY STREQUAL "target")
    build("${here}/projects/target" "${WORK_DIR}/consumer" ${consumer} ${own_host}
        "-DLIBRARY_SOURCE_DIR=${SOURCE_DIR}" # with the project's Qt
        -DCMAKE_UNITY_BUILD=ON) # the library compiles that way, too, in half the time
    run(${CMAKE_COMMAND} --install "${WORK_DIR}/consumer" --prefix "${prefix}")
    if(EXISTS "${prefix}")
        message(FATAL_ERROR "a subdirectory installs itself into its parent's prefix")
    endif()
elseif(WAY STREQUAL "library")
    build("${here}/projects/host" "${WORK_DIR}/host" ${own_host})
    build("${here}/projects/library" "${WORK_DIR}/consumer" ${consumer} ${own_host} ${installed}
        "-DOWN_HOST_LIBRARY=${WORK_DIR}/host/libownhost.so")
    build_with_pkgconfig(core_manage "-I${here}/ownhost" "${here}/consumer/main.cpp"
        "-Wl,--push-state,--as-needed" "${WORK_DIR}/host/libownhost.so" "-Wl,--pop-state")
    string(APPEND library_path ":${WORK_DIR}/host")
elseif(WAY STREQUAL "program")
    build("${here}/projects/program" "${WORK_DIR}/consumer" ${consumer} ${own_host} ${installed})
    build_with_pkgconfig(core_manage -rdynamic "-I${here}/ownhost" "${here}/consumer/main.cpp"
        "${here}/ownhost/ownhost.cpp")
elseif(WAY STREQUAL "refused")
    refused("this program has no host" nohost ${installed})
    refused("this program has no host" nohost "-DLIBRARY_SOURCE_DIR=${SOURCE_DIR}")
    refused("this program has a host already" twohosts ${installed})
    refused("this program has a host already" twohosts "-DLIBRARY_SOURCE_DIR=${SOURCE_DIR}")
    refused("it was built with Qt ${QT_MAJOR}" otherqt ${installed})
    set(from "-DLIBRARY_SOURCE_DIR=${SOURCE_DIR}")
    refused("CORE_MANAGE_QT is \"4\"" chooseqt ${from} -DCORE_MANAGE_QT=4)
    refused("chosen: Qt ${QT_MAJOR}" chooseqt ${from} -DCORE_MANAGE_QT=${QT_MAJOR})
    refused("chosen: Qt ${QT_MAJOR}" chooseqt ${from} -DQT_OF_PROJECT=${QT_MAJOR})
    if(QT_MAJOR EQUAL 5) # it comes first
        refused("chosen: Qt 5" chooseqt ${from})
    endif()
    file(REMOVE "${prefix}/${LIBDIR}/cmake/Core_Manage/Core_ManageReferenceHostTargets.cmake")
    refused("the reference host is not installed" reference ${installed})
    return()
else()
    message(FATAL_ERROR "unknown WAY \"${WAY}\"")
endif()

run_consumer(consumer/consumer)
if(NOT WAY STREQUAL "target")
    run_consumer(pkgconfig-consumer)
endif()
