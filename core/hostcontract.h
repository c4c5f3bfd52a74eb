// SPDX-License-Identifier: MIT
#pragma once

#include "biz_cmdswork.h"
#include "model_globalenum.h"
#include "model_osdparam.h"
#include "model_protocoldata.h"

#include <QByteArray>
#include <QString>

#include <deque>
#include <mutex>
#include <type_traits>

/// What the library needs of the host's types, checked where it is compiled: the message names the
/// member that differs.
namespace hostcontract
{

template <class Member, std::size_t Size>
constexpr bool isUnsigned = std::is_unsigned_v<Member> && sizeof(Member) == Size;

template <class Member, std::size_t Size>
constexpr bool isSigned = std::is_integral_v<Member>&& std::is_signed_v<Member> &&
                          sizeof(Member) == Size;

} // namespace hostcontract

#define CORE_MANAGE_NEEDS(member, condition, expected)                                             \
    static_assert(condition, "the host's " #member " is to be " expected)
#define CORE_MANAGE_NEEDS_UNSIGNED(type, member, size)                                             \
    CORE_MANAGE_NEEDS(type::member, (hostcontract::isUnsigned<decltype(type::member), size>),      \
                      "an unsigned integer of " #size " byte(s)")
#define CORE_MANAGE_NEEDS_SIGNED(type, member, size)                                               \
    CORE_MANAGE_NEEDS(type::member, (hostcontract::isSigned<decltype(type::member), size>),        \
                      "a signed integer of " #size " byte(s)")
#define CORE_MANAGE_NEEDS_TYPE(type, member, ...)                                                  \
    CORE_MANAGE_NEEDS(type::member, (std::is_same_v<decltype(type::member), __VA_ARGS__>),         \
                      "a " #__VA_ARGS__)

CORE_MANAGE_NEEDS_TYPE(model_Protocoldata, strKey, QString);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, bKeyFlag, 1);
CORE_MANAGE_NEEDS_TYPE(model_Protocoldata, strKey2, QString);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, HEAD, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, aux1, 2);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, aux2, 2);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, aux3, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, aux4, 2);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, aux5, 2);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, aux6, 2);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, ADDR, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, CMD, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, DAT1, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, DAT2, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, DAT3, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, DAT4, 1);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, CHKSUM, 1);
CORE_MANAGE_NEEDS_SIGNED(model_Protocoldata, aux7, 4);
CORE_MANAGE_NEEDS_TYPE(model_Protocoldata, strReply, QString);
CORE_MANAGE_NEEDS_TYPE(model_Protocoldata, arryDatablock, QByteArray);
CORE_MANAGE_NEEDS_UNSIGNED(model_Protocoldata, sendMode, 1);
CORE_MANAGE_NEEDS_SIGNED(model_Protocoldata, featureCode, 4);

CORE_MANAGE_NEEDS(model_OsdParam::ch2, sizeof(model_OsdParam::ch2) == 1, "one byte");
CORE_MANAGE_NEEDS(model_OsdParam::ch3, sizeof(model_OsdParam::ch3) == 1, "one byte");
CORE_MANAGE_NEEDS(model_OsdParam::ch4, sizeof(model_OsdParam::ch4) == 1, "one byte");
CORE_MANAGE_NEEDS(model_OsdParam::ch5, sizeof(model_OsdParam::ch5) == 1, "one byte");
CORE_MANAGE_NEEDS(model_OsdParam::ch7, sizeof(model_OsdParam::ch7) == 1, "one byte");
CORE_MANAGE_NEEDS(model_OsdParam::ch8, sizeof(model_OsdParam::ch8) == 1, "one byte");
CORE_MANAGE_NEEDS(model_OsdParam::ch9, sizeof(model_OsdParam::ch9) == 1, "one byte");
CORE_MANAGE_NEEDS(model_OsdParam::ch10, sizeof(model_OsdParam::ch10) == 1, "one byte");
CORE_MANAGE_NEEDS_TYPE(model_OsdParam, strIP, QString);
CORE_MANAGE_NEEDS_TYPE(model_OsdParam, arryData, QByteArray);

CORE_MANAGE_NEEDS(model_GlobalEnum::DeviceType,
                  std::is_enum_v<model_GlobalEnum::DeviceType> &&
                      sizeof(model_GlobalEnum::DeviceType) == 4,
                  "an enumeration of 32 bits");

CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork, HexCmdlock, std::mutex);
CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork, bRetFlag, bool);
CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork, receiveHexCmdlock, std::mutex);
CORE_MANAGE_NEEDS_TYPE(biz_CMDSWork, receivequeueHexCmd, std::deque<model_Protocoldata>);

#undef CORE_MANAGE_NEEDS_TYPE
#undef CORE_MANAGE_NEEDS_SIGNED
#undef CORE_MANAGE_NEEDS_UNSIGNED
#undef CORE_MANAGE_NEEDS
