# SPDX-License-Identifier: MIT
# The installed package: libraries, public headers, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)

set(CORE_MANAGE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Core_Manage")

install(TARGETS Core_Manage EXPORT Core_ManageTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(FILES
    core/core_manage.h core/corefactory.h core/icorebase.h core/icoreosdbase.h
    core/replystreamparser.h
    transports/core_serialport.h transports/core_udp.h transports/core_usb.h transports/serialline.h
    transports/vela_core_serialport.h
    "${PROJECT_BINARY_DIR}/core/core_manage_export.h"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/core_manage")

set(CORE_MANAGE_INSTALLS_HOST_HEADERS OFF)
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

set(CORE_MANAGE_PC_HOST "")
if(CORE_MANAGE_HOST_KIND STREQUAL "reference")
    set(CORE_MANAGE_PC_HOST "-lCore_ManageHost")
endif()
configure_file(packaging/core_manage.pc.in "${PROJECT_BINARY_DIR}/core_manage.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/core_manage.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
# Below the prefix, which udev reads as /usr and /usr/local.
install(FILES packaging/70-core-manage.rules DESTINATION lib/udev/rules.d)
