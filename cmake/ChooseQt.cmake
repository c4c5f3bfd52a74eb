# SPDX-License-Identifier: MIT
# Qt 5.15 or Qt 6.4: the one that is asked for, else the one that the enclosing project uses, else the
# first that is found, Qt 5 before Qt 6. Everything links the versionless targets, Qt::Core and so on.
set(CORE_MANAGE_QT "" CACHE STRING "Major version of Qt, 5 or 6; empty: as found, 5 before 6")
set_property(CACHE CORE_MANAGE_QT PROPERTY STRINGS "" 5 6)

if(CORE_MANAGE_QT AND NOT CORE_MANAGE_QT MATCHES "^[56]$")
    message(FATAL_ERROR "CORE_MANAGE_QT is \"${CORE_MANAGE_QT}\": set it to 5 or 6, or leave it empty")
endif()
if(CORE_MANAGE_QT)
    set(qt_names Qt${CORE_MANAGE_QT})
elseif(TARGET Qt6::Core)
    set(qt_names Qt6)
else()
    find_package(QT QUIET NAMES Qt5) # of several names, CMake takes any
    if(QT_FOUND)
        set(qt_names Qt5)
    else()
        set(qt_names Qt5 Qt6)
    endif()
endif()
find_package(QT NAMES ${qt_names} REQUIRED)
set(CORE_MANAGE_QT_VERSION 5.15) # at least
if(QT_VERSION_MAJOR EQUAL 6)
    set(CORE_MANAGE_QT_VERSION 6.4)
endif()
find_package(Qt${QT_VERSION_MAJOR} ${CORE_MANAGE_QT_VERSION} REQUIRED
    COMPONENTS Core Network SerialPort)
message(STATUS "Core_Manage: Qt ${Qt${QT_VERSION_MAJOR}_VERSION}")
