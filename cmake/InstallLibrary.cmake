# SPDX-License-Identifier: MIT
# The installed package: libraries, public headers, CMake package and pkg-config files. The
# reference host and the capture are parts of their own.
include(CMakePackageConfigHelpers)

set(CORE_MANAGE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Core_Manage")

get_target_property(header_sets Core_Manage INTERFACE_HEADER_SETS)
list(TRANSFORM header_sets REPLACE "(.+)"
    "FILE_SET;\\1;DESTINATION;${CMAKE_INSTALL_INCLUDEDIR}/core_manage")
install(TARGETS Core_Manage EXPORT Core_ManageTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" ${header_sets})
install(EXPORT Core_ManageTargets NAMESPACE Core_Manage:: DESTINATION "${CORE_MANAGE_CMAKE_DIR}")
if(TARGET Core_ManageHost)
    install(TARGETS Core_ManageHost EXPORT Core_ManageReferenceHostTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/core_manage/host")
    install(EXPORT Core_ManageReferenceHostTargets NAMESPACE Core_Manage::
        DESTINATION "${CORE_MANAGE_CMAKE_DIR}")
endif()
if(TARGET Core_ManageCapture)
    install(TARGETS Core_ManageCapture EXPORT Core_ManageCaptureTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/core_manage")
    install(EXPORT Core_ManageCaptureTargets NAMESPACE Core_Manage::
        DESTINATION "${CORE_MANAGE_CMAKE_DIR}")
endif()

configure_package_config_file(cmake/Core_ManageConfig.cmake.in
    "${PROJECT_BINARY_DIR}/Core_ManageConfig.cmake"
    INSTALL_DESTINATION "${CORE_MANAGE_CMAKE_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/Core_ManageConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    cmake/Core_ManageHost.cmake
    "${PROJECT_BINARY_DIR}/Core_ManageConfig.cmake"
    "${PROJECT_BINARY_DIR}/Core_ManageConfigVersion.cmake"
    DESTINATION "${CORE_MANAGE_CMAKE_DIR}")

set(pc_directory "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH CORE_MANAGE_PC_PREFIX
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" CORE_MANAGE_PC_PREFIX "${CORE_MANAGE_PC_PREFIX}")
cmake_path(APPEND CORE_MANAGE_PC_LIBDIR "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")
cmake_path(APPEND CORE_MANAGE_PC_INCLUDEDIR "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
set(pc_files core_manage)
if(TARGET Core_ManageHost)
    list(APPEND pc_files core_manage_host)
endif()
if(TARGET Core_ManageCapture)
    list(APPEND pc_files core_manage_capture)
endif()
foreach(name IN LISTS pc_files)
    configure_file("packaging/${name}.pc.in" "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/${name}.pc" DESTINATION "${pc_directory}")
endforeach()
install(FILES LICENSE README.md CONTRIBUTING.md SECURITY.md DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT documents)
install(DIRECTORY docs DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT documents
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")
# Below the prefix, which udev reads as /usr and /usr/local.
install(FILES packaging/70-core-manage.rules DESTINATION lib/udev/rules.d)
