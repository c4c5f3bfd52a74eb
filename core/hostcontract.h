// SPDX-License-Identifier: MIT
#pragma once

#include "biz_cmdswork.h"
#include "model_globalenum.h"
#include "model_osdparam.h"
#include "model_protocoldata.h"
#include "utility_manage.h"

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <deque>
#include <mutex>
#include <type_traits>

// The members of the host's records, in order, as libCore_Manage is compiled with them. It copies
// records, so all of them count, also those that it does not read.

#define CORE_MANAGE_PROTOCOLDATA(member)                                                           \
    member(model_Protocoldata, QString, strKey) member(                                            \
        model_Protocoldata, quint8, bKeyFlag) member(model_Protocoldata, QString, strKey2)         \
        member(model_Protocoldata, quint8, HEAD) member(model_Protocoldata, quint16, aux1) member( \
            model_Protocoldata, quint16, aux2) member(model_Protocoldata, quint8, aux3)            \
            member(model_Protocoldata, quint16, aux4) member(model_Protocoldata, quint16, aux5)    \
                member(model_Protocoldata, quint16, aux6) member(model_Protocoldata, quint8, ADDR) \
                    member(model_Protocoldata, quint8, CMD) member(                                \
                        model_Protocoldata, quint8, DAT1) member(model_Protocoldata, quint8, DAT2) \
                        member(model_Protocoldata, quint8, DAT3)                                   \
                            member(model_Protocoldata, quint8, DAT4) member(model_Protocoldata,    \
                                                                            quint8, CHKSUM)        \
                                member(model_Protocoldata, qint32, aux7)                           \
                                    member(model_Protocoldata, QString, strReply)                  \
                                        member(model_Protocoldata, QByteArray, arryDatablock)      \
                                            member(model_Protocoldata, quint8, sendMode)           \
                                                member(model_Protocoldata, qint32, featureCode)

#define CORE_MANAGE_OSDPARAM(member)                                                               \
    member(model_OsdParam, char, ch0) member(model_OsdParam, char, ch1)                            \
        member(model_OsdParam, char, ch2) member(model_OsdParam, char, ch3)                        \
            member(model_OsdParam, char, ch4) member(model_OsdParam, char, ch5)                    \
                member(model_OsdParam, char, ch6) member(model_OsdParam, char, ch7)                \
                    member(model_OsdParam, char, ch8) member(model_OsdParam, char, ch9)            \
                        member(model_OsdParam, char, ch10) member(model_OsdParam, QString, strIP)  \
                            member(model_OsdParam, qint32, nParam1)                                \
                                member(model_OsdParam, qint32, nParam2)                            \
                                    member(model_OsdParam, QString, strParam)                      \
                                        member(model_OsdParam, QByteArray, arryData)               \
                                            member(model_OsdParam, qint32, nParam3)

/// What libCore_Manage needs of the types of the host. A program whose host differs does not
/// compile, and the message names the member.
namespace hostcontract
{

#define CORE_MANAGE_DECLARE(record, type, name) type name;
struct model_Protocoldata {
    CORE_MANAGE_PROTOCOLDATA(CORE_MANAGE_DECLARE)
};
struct model_OsdParam {
    CORE_MANAGE_OSDPARAM(CORE_MANAGE_DECLARE)
};
#undef CORE_MANAGE_DECLARE

/// The library makes objects of the host's class biz_CMDSWork, which may have any members. Bytes.
constexpr std::size_t workSizeLimit = 4096;

/// The same class, or integers of one size and signedness. Plain char stands for any byte.
template <class Member, class Expected>
constexpr bool fits = std::is_same_v<Member, Expected> ||
                      (std::is_integral_v<Member> && std::is_integral_v<Expected> &&
                       sizeof(Member) == sizeof(Expected) &&
                       (std::is_same_v<Expected, char> ||
                        std::is_signed_v<Member> == std::is_signed_v<Expected>));

#define CORE_MANAGE_NEEDS(what, condition, expected)                                               \
    static_assert(condition, "the host's " #what " is to be " expected);
#define CORE_MANAGE_NEEDS_MEMBER(record, type, name)                                               \
    CORE_MANAGE_NEEDS(record::name, (fits<decltype(::record::name), type>), "a " #type)            \
    CORE_MANAGE_NEEDS(record::name, offsetof(::record, name) == offsetof(record, name),            \
                      "at the offset that the order of the members gives it")
#define CORE_MANAGE_NEEDS_TYPE(what, ...)                                                          \
    CORE_MANAGE_NEEDS(what, (std::is_same_v<decltype(::what), __VA_ARGS__>), "a " #__VA_ARGS__)

CORE_MANAGE_PROTOCOLDATA(CORE_MANAGE_NEEDS_MEMBER)
CORE_MANAGE_NEEDS(model_Protocoldata, sizeof(::model_Protocoldata) == sizeof(model_Protocoldata),
                  "of these members alone")
CORE_MANAGE_OSDPARAM(CORE_MANAGE_NEEDS_MEMBER)
CORE_MANAGE_NEEDS(model_OsdParam, sizeof(::model_OsdParam) == sizeof(model_OsdParam),
                  "of these members alone")
CORE_MANAGE_NEEDS(model_GlobalEnum::DeviceType,
                  std::is_enum_v<::model_GlobalEnum::DeviceType> &&
                      sizeof(::model_GlobalEnum::DeviceType) == 4,
                  "an enumeration of 32 bits")

CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork::HexCmdlock, std::mutex)
CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork::bRetFlag, bool)
CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork::receiveHexCmdlock, std::mutex)
CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork::receivequeueHexCmd, std::deque<::model_Protocoldata>)
CORE_MANAGE_NEEDS(biz_CMDSWork,
                  sizeof(biz_CMDSWork) <= workSizeLimit &&
                      alignof(biz_CMDSWork) <= alignof(std::max_align_t),
                  "of at most 4096 bytes, without an alignment of its own")

CORE_MANAGE_NEEDS(Utility_Manage::combineTwoByte,
                  sizeof(Utility_Manage::combineTwoByte(quint8(), quint8())) == 2,
                  "a function that gives 16 bits")
CORE_MANAGE_NEEDS(Utility_Manage::getHighByte, sizeof(Utility_Manage::getHighByte(quint16())) == 1,
                  "a function that gives a byte")
CORE_MANAGE_NEEDS(Utility_Manage::getLowByte, sizeof(Utility_Manage::getLowByte(quint16())) == 1,
                  "a function that gives a byte")
CORE_MANAGE_NEEDS_TYPE(Utility_Manage::getDeviceType(), ::model_GlobalEnum::DeviceType)

} // namespace hostcontract

#undef CORE_MANAGE_NEEDS_TYPE
#undef CORE_MANAGE_NEEDS_MEMBER
#undef CORE_MANAGE_NEEDS
#undef CORE_MANAGE_OSDPARAM
#undef CORE_MANAGE_PROTOCOLDATA
