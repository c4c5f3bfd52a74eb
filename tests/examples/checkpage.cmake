# SPDX-License-Identifier: MIT
# The program in the page is the example, word for word, and fits on 60 lines:
#   cmake -DPAGE=page.md -DPROGRAM=program.cpp -P checkpage.cmake
file(READ "${PAGE}" page)
file(READ "${PROGRAM}" program)
string(FIND "${page}" "```cpp\n${program}```\n" position)
if(position EQUAL -1)
    message(FATAL_ERROR "${PAGE} does not show ${PROGRAM} as it is")
endif()
string(REGEX MATCHALL "\n" lines "${program}")
list(LENGTH lines count)
if(count GREATER 60)
    message(FATAL_ERROR "${PROGRAM} has ${count} lines")
endif()
