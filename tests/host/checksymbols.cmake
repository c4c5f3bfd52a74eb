# SPDX-License-Identifier: MIT
# The library holds no copy of a host symbol, and exports its own classes only:
#   cmake -DNM=nm -DLIBRARY=libCore_Manage.so -P checksymbols.cmake
execute_process(COMMAND ${NM} -DC --defined-only ${LIBRARY} OUTPUT_VARIABLE defined RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "nm cannot read ${LIBRARY}")
endif()
string(REGEX REPLACE "[0-9a-f]+ ([A-Za-z]) ([^\n]*)" "\\1 \\2" defined "${defined}")
foreach(symbol biz_CMDSWork:: biz_Osd_CMDSWork:: Utility_Manage::)
    if(defined MATCHES "[TDBRVWu] ${symbol}[^\n]*")
        message(FATAL_ERROR "a copy of a host symbol: ${CMAKE_MATCH_0}")
    endif()
endforeach()
foreach(internal replyqueue:: commandframe:: blockjoin:: replykinds:: UdpLink:: ReceiveBuffer:: ReplyStream::
         TextReplyStream:: BinaryReplyStream::)
    if(defined MATCHES "[TDB] ${internal}[^\n]*")
        message(FATAL_ERROR "an internal symbol is exported: ${CMAKE_MATCH_0}")
    endif()
endforeach()
if(NOT defined MATCHES "T CoreFactory::creatCoreObj\\(ConnType\\)")
    message(FATAL_ERROR "the factory is not exported")
endif()
