# SPDX-License-Identifier: MIT
# Big endian.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(debian_architecture s390x)
set(triplet s390x-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-debian.cmake")
