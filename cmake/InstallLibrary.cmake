# SPDX-License-Identifier: MIT
# The installed package: libraries, public headers, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)

set(CORE_MANAGE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Core_Manage")

get_target_property(header_sets Core_Manage INTERFACE_HEADER_SETS)
list(TRANSFORM header_sets REPLACE "(.+)"
    "FILE_SET;\\1;DESTINATION;${CMAKE_INSTALL_INCLUDEDIR}/core_manage")
install(TARGETS Core_Manage EXPORT Core_ManageTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" ${header_sets})

# Where consumers find the host: headers and a library outside the package, unless it brings them.
# The host of an enclosing project is that project's to bring.
set(CORE_MANAGE_INSTALLS_HOST_HEADERS OFF)
set(CORE_MANAGE_OUTER_HOST_INCLUDE_DIR "")
set(CORE_MANAGE_OUTER_HOST_LIBRARY "")
if(NOT CORE_MANAGE_HOST_KIND STREQUAL "target")
    set(CORE_MANAGE_OUTER_HOST_INCLUDE_DIR "${CORE_MANAGE_HOST_INCLUDE_DIR}")
    set(CORE_MANAGE_OUTER_HOST_LIBRARY "${CORE_MANAGE_HOST_LIBRARY}")
endif()
if(TARGET Core_ManageHost)
    set(CORE_MANAGE_INSTALLS_HOST_HEADERS ON)
    install(DIRECTORY host/ DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/core_manage/host"
        FILES_MATCHING PATTERN "*.h")
    install(FILES "${PROJECT_BINARY_DIR}/host/core_manage_host_export.h"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/core_manage/host")
endif()
if(CORE_MANAGE_HOST_KIND STREQUAL "reference")
    install(TARGETS Core_ManageHost EXPORT Core_ManageTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
endif()

install(EXPORT Core_ManageTargets NAMESPACE Core_Manage:: DESTINATION "${CORE_MANAGE_CMAKE_DIR}")
configure_package_config_file(cmake/Core_ManageConfig.cmake.in
    "${PROJECT_BINARY_DIR}/Core_ManageConfig.cmake"
    INSTALL_DESTINATION "${CORE_MANAGE_CMAKE_DIR}"
    PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/Core_ManageConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/Core_ManageConfig.cmake"
    "${PROJECT_BINARY_DIR}/Core_ManageConfigVersion.cmake"
    DESTINATION "${CORE_MANAGE_CMAKE_DIR}")

set(pc_directory "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH CORE_MANAGE_PC_PREFIX
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" CORE_MANAGE_PC_PREFIX "${CORE_MANAGE_PC_PREFIX}")
cmake_path(APPEND CORE_MANAGE_PC_LIBDIR "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")
cmake_path(APPEND CORE_MANAGE_PC_INCLUDEDIR "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
set(CORE_MANAGE_PC_HOST_CFLAGS "")
set(CORE_MANAGE_PC_HOST_LIBS "${CORE_MANAGE_OUTER_HOST_LIBRARY}")
if(CORE_MANAGE_INSTALLS_HOST_HEADERS)
    set(CORE_MANAGE_PC_HOST_CFLAGS "-I\${includedir}/core_manage/host")
elseif(CORE_MANAGE_OUTER_HOST_INCLUDE_DIR)
    set(CORE_MANAGE_PC_HOST_CFLAGS "-I${CORE_MANAGE_OUTER_HOST_INCLUDE_DIR}")
endif()
if(CORE_MANAGE_HOST_KIND STREQUAL "reference")
    set(CORE_MANAGE_PC_HOST_LIBS "-lCore_ManageHost")
endif()
configure_file(packaging/core_manage.pc.in "${PROJECT_BINARY_DIR}/core_manage.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/core_manage.pc" DESTINATION "${pc_directory}")
install(FILES LICENSE README.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")
# Below the prefix, which udev reads as /usr and /usr/local.
install(FILES packaging/70-core-manage.rules DESTINATION lib/udev/rules.d)
