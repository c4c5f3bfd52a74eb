# SPDX-License-Identifier: MIT
# The library holds no copy of a host symbol, names no host library, needs of a host what
# docs/host.md lists, and exports its own classes only, as does the reference host:
#   cmake -DNM=nm -DREADELF=readelf -DLIBRARY=libCore_Manage.so -DHOST_LIBRARY=libCore_ManageHost.so -P checksymbols.cmake
function(read_symbols library)
    execute_process(COMMAND ${NM} -DC --defined-only ${library}
        OUTPUT_VARIABLE defined RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "nm cannot read ${library}")
    endif()
    string(REGEX REPLACE "[0-9a-f]+ ([A-Za-z]) ([^\n]*)" "\\1 \\2" defined "${defined}")
    if(defined MATCHES "(^|\n)[A-Za-z] ([^(\n]* )?(std|__gnu_cxx|spdlog|fmt)::[^\n]*")
        message(FATAL_ERROR "${library} exports another library's template: ${CMAKE_MATCH_0}")
    endif()
    set(defined "${defined}" PARENT_SCOPE)
endfunction()

read_symbols(${HOST_LIBRARY})
if(NOT defined MATCHES "B biz_CMDSWork::receivequeueHexCmd")
    message(FATAL_ERROR "the host's queue is not exported")
endif()
read_symbols(${LIBRARY})
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
foreach(public "T CoreFactory::creatCoreObj\\(ConnType\\)" "typeinfo for core_UDP" "vtable for ICoreBase"
         "core_Osd_Manage::staticMetaObject")
    if(NOT defined MATCHES "${public}")
        message(FATAL_ERROR "not exported: ${public}")
    endif()
endforeach()

execute_process(COMMAND ${READELF} -d ${LIBRARY} OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
if(NOT dynamic MATCHES "libQt[56]Core" OR dynamic MATCHES "NEEDED[^\n]*[Hh]ost")
    message(FATAL_ERROR "the library names a host library, or not Qt: ${dynamic}")
endif()
execute_process(COMMAND ${NM} -DCu ${LIBRARY} OUTPUT_VARIABLE open COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "(biz_|Utility_|model_)[^\n]*" open "${open}")
list(SORT open)
set(needed
    "Utility_Manage::combineTwoByte(unsigned char, unsigned char)"
    "Utility_Manage::getDeviceType()"
    "Utility_Manage::getHighByte(unsigned short)"
    "Utility_Manage::getLowByte(unsigned short)"
    "Utility_Manage::writeLog(QString)"
    "biz_CMDSWork::HexCmdlock"
    "biz_CMDSWork::bRetFlag"
    "biz_CMDSWork::biz_CMDSWork()"
    "biz_CMDSWork::clearQueue()"
    "biz_CMDSWork::receiveHexCmdlock"
    "biz_CMDSWork::receivequeueHexCmd"
    "biz_CMDSWork::~biz_CMDSWork()"
    "biz_Osd_CMDSWork::addToReceiveQueue(model_OsdParam)")
if(NOT open STREQUAL needed)
    message(FATAL_ERROR "open are: ${open}\nnot: ${needed}")
endif()
