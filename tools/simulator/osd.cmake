# SPDX-License-Identifier: MIT
# The simulated on-screen-display endpoint, for the tool, the tests and the benchmarks.
include_guard(GLOBAL)
add_library(core_manage_osd_simulator STATIC
    "${CMAKE_CURRENT_LIST_DIR}/osdsimulator.cpp"
    "${CMAKE_CURRENT_LIST_DIR}/osdsimulator.h")
target_include_directories(core_manage_osd_simulator PUBLIC "${CMAKE_CURRENT_LIST_DIR}")
target_link_libraries(core_manage_osd_simulator
    PUBLIC Qt5::Core Threads::Threads
    PRIVATE core_manage_flags)
