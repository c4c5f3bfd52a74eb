# SPDX-License-Identifier: MIT
# A host whose types differ from what the library needs does not compile, and the message names the
# member that differs:
#   cmake -DCXX=c++ -DFLAGS=… -DSOURCE_DIR=… -DWORK_DIR=… -P checkcontract.cmake
file(REMOVE_RECURSE "${WORK_DIR}")
file(COPY "${SOURCE_DIR}/tests/host/ownhost/" DESTINATION "${WORK_DIR}")
file(READ "${WORK_DIR}/records.h" records)
file(READ "${WORK_DIR}/biz_cmdswork.h" business)

# What every host includes is compiled once.
file(WRITE "${WORK_DIR}/qt.h" "#include <QByteArray>\n#include <QMetaType>\n#include <QString>\n#include <array>\n#include <atomic>\n#include <deque>\n#include <mutex>\n#include <type_traits>\n")
set(compiler ${CXX} -std=c++17 -fPIC ${FLAGS} -I "${WORK_DIR}")
execute_process(COMMAND ${compiler} -x c++-header "${WORK_DIR}/qt.h" -o "${WORK_DIR}/qt.h.gch"
    COMMAND_ERROR_IS_FATAL ANY)

function(compile result_variable)
    execute_process(
        COMMAND ${compiler} -fsyntax-only -include "${WORK_DIR}/qt.h" -x c++
            "${SOURCE_DIR}/core/hostcontract.h"
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    set(${result_variable} ${result} PARENT_SCOPE)
    set(output "${output}" PARENT_SCOPE)
endfunction()

compile(result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "the host that fits is refused: ${output}")
endif()

function(refuses member file content from to)
    string(REPLACE "${from}" "${to}" changed "${content}")
    if(changed STREQUAL content)
        message(FATAL_ERROR "\"${from}\" is not in ${file}")
    endif()
    file(WRITE "${WORK_DIR}/${file}" "${changed}")
    compile(result)
    file(WRITE "${WORK_DIR}/${file}" "${content}")
    if(result EQUAL 0 OR NOT output MATCHES "the host's ${member} is to be")
        message(FATAL_ERROR "${member} as \"${to}\": ${output}")
    endif()
endfunction()

refuses(model_Protocoldata::aux1 records.h "${records}" "unsigned short aux1" "unsigned int aux1")
refuses(model_Protocoldata::CMD records.h "${records}" "unsigned char CMD" "signed char CMD")
refuses(model_Protocoldata::featureCode records.h "${records}" "int featureCode" "long featureCode")
refuses(model_Protocoldata::aux7 records.h "${records}" "int aux7" "unsigned aux7")
refuses(model_Protocoldata::strReply records.h "${records}" "QString strReply" "QByteArray strReply")
refuses(model_OsdParam::arryData records.h "${records}" "QByteArray arryData" "QString arryData")
refuses(model_OsdParam::ch10 records.h "${records}" "ch9 = 0,
         ch10 = 0;" "ch9 = 0;
    short ch10 = 0;")
refuses(model_GlobalEnum::DeviceType records.h "${records}" "DeviceType : qint32 { PlainUnit = 0, PanelUnit = 0x353101 }" "DeviceType : qint64 { PlainUnit = 0, PanelUnit = 0x353101 }")
refuses(model_Protocoldata::aux1 records.h "${records}" "unsigned char HEAD;
    unsigned short aux1;" "unsigned short aux1;
    unsigned char HEAD;")
refuses(model_Protocoldata::CMD records.h "${records}" "unsigned char ADDR;" "")
refuses(model_Protocoldata records.h "${records}" "int featureCode;" "int featureCode;
    QString note;")
refuses(model_OsdParam::nParam2 records.h "${records}" "int nParam2" "unsigned nParam2")
refuses(model_OsdParam::nParam3 records.h "${records}" "int nParam3" "QString note; int nParam3")
refuses(biz_CMDSWork biz_cmdswork.h "${business}" "marks;" "marks; char room[4096];")
refuses(biz_CMDSWork::HexCmdlock biz_cmdswork.h "${business}" "static std::mutex HexCmdlock" "static std::recursive_mutex HexCmdlock")
