# SPDX-License-Identifier: MIT
# The scripts answer for their arguments before they build anything:
#   cmake -DSCRIPTS=… -P checkarguments.cmake
function(gives status expected script)
    execute_process(COMMAND "${SCRIPTS}/${script}" ${ARGN} TIMEOUT 20
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result STREQUAL status OR NOT output MATCHES "${expected}")
        message(FATAL_ERROR
            "${script} ${ARGN} gave ${result}, expected ${status} and \"${expected}\"\n${output}")
    endif()
endfunction()

foreach(script bench check-abi cross demo docs fuzz package pictures progress setup test)
    gives(0 "scripts/${script}" ${script} --help)
    gives(0 "scripts/${script}" ${script} -h)
endforeach()
gives(2 "\"nothing\"; there are: .*bench_frames.*bench_udp" bench nothing)
gives(2 "\"nothing\"" bench udp nothing)
gives(2 "unknown argument \"nothing\"" docs nothing)
gives(2 "\"nothing\"; there are: demo floors figures" pictures nothing)
gives(2 "not a number of seconds: \"long\"" fuzz long)
gives(2 "not a number of seconds: \"0\"" fuzz 0)
gives(2 "not a number of seconds: \"5 5\"" fuzz 5 5)
gives(2 "unknown architecture \"nothing\"" cross nothing)
gives(2 "unknown argument \"nothing\"" test nothing)
gives(2 "unknown argument \"nothing\"" check-abi nothing)
gives(2 "unknown argument \"--nothing\"" package --nothing)
gives(2 "one directory at most" package one two)
gives(2 "no section \"nothing\"" setup nothing)
gives(2 "no section \"nothing\"" setup build nothing)
gives(2 "no name" progress)
gives(0 "scripts/demo" demo --verbose --help)
