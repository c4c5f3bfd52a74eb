# SPDX-License-Identifier: MIT
# Builds for another architecture with Debian's cross compilers, against the packages that
# scripts/cross has unpacked. Programs run in the emulator of qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

cmake_path(ABSOLUTE_PATH CMAKE_CURRENT_LIST_DIR OUTPUT_VARIABLE here)
cmake_path(GET here PARENT_PATH source_directory)
set(CMAKE_SYSROOT "${source_directory}/build/sysroot/${debian_architecture}")
set(CMAKE_FIND_ROOT_PATH "${CMAKE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR} -L "${CMAKE_SYSROOT}")
