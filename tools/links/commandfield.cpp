// SPDX-License-Identifier: MIT
#include "commandfield.h"

#include <type_traits>

namespace
{

constexpr auto byText = static_cast<unsigned>(FieldSet::TextBody);
constexpr auto byBinary = static_cast<unsigned>(FieldSet::BinaryHead);
constexpr auto byOsd = static_cast<unsigned>(FieldSet::OsdFrame);
constexpr unsigned byDevices = byText | byBinary;

template <class AnyCommand, class Member>
auto& memberOf(AnyCommand& command, Member member)
{
    if constexpr (std::is_same_v<Member, char model_OsdParam::*>) {
        return command.osd.*member;
    } else {
        return command.record.*member;
    }
}

// Calls a function with the member itself.
template <class AnyCommand, class Function>
auto visit(const CommandField& field, AnyCommand& command, const Function& function)
{
    return std::visit([&](auto member) { return function(memberOf(command, member)); },
                      field.member);
}

} // namespace

Command Command::of(const QByteArray& payload, FieldSet fields)
{
    constexpr quint16 binaryLead = 0xf11f;
    Command command;
    if (fields == FieldSet::OsdFrame) {
        command.osd.arryData = payload;
        return command;
    }
    model_Protocoldata& record = command.record;
    record.arryDatablock = payload;
    record.DAT3 = static_cast<quint8>(payload.size());
    record.DAT4 = static_cast<quint8>(payload.size() >> 8);
    record.aux1 = fields == FieldSet::BinaryHead ? binaryLead : 0;
    return command;
}

const std::vector<CommandField>& CommandField::all()
{
    using Record = model_Protocoldata;
    using Osd = model_OsdParam;
    static const std::vector<CommandField> table{
        {"HEAD", byText, &Record::HEAD, "first body byte (0)"},
        {"aux1", byBinary, &Record::aux1, "binary frames: bytes 0 and 1 (0xf11f)"},
        {"aux2", byBinary, &Record::aux2, nullptr},
        {"ADDR", byDevices, &Record::ADDR, "device address byte (0)"},
        {"aux3", byBinary, &Record::aux3, "binary frames: byte 3 (0)"},
        {"aux4", byBinary, &Record::aux4, "binary frames: bytes 4 and 5 (0)"},
        {"aux5", byBinary, &Record::aux5, "binary frames: bytes 6 and 7 (0)"},
        {"aux6", byBinary, &Record::aux6, nullptr},
        {"CMD", byDevices, &Record::CMD, "command code, for instance 0x8b; required"},
        {"DAT1", byDevices, &Record::DAT1, "sub-code (0)"},
        {"DAT2", byDevices, &Record::DAT2, "(0)"},
        {"DAT3", byDevices, &Record::DAT3, "low byte of the block's length (that of --block)"},
        {"DAT4", byDevices, &Record::DAT4, "high byte of the block's length (that of --block)"},
        {"CHKSUM", byDevices, &Record::CHKSUM, nullptr},
        {"ch2", byOsd, &Osd::ch2, "byte 0 (0)"},
        {"ch3", byOsd, &Osd::ch3, "byte 1 (0)"},
        {"ch5", byOsd, &Osd::ch5, "byte 2 (0)"},
        {"ch4", byOsd, &Osd::ch4, "byte 3 (0)"},
        {"ch7", byOsd, &Osd::ch7, "byte 4 (0)"},
        {"ch8", byOsd, &Osd::ch8, "byte 5 (0)"},
        {"ch9", byOsd, &Osd::ch9, "the byte behind the data (0)"},
        {"ch10", byOsd, &Osd::ch10, "the last byte (0)"},
    };
    return table;
}

int CommandField::bytes() const
{
    const Command any;
    return visit(*this, any, [](auto& place) { return static_cast<int>(sizeof place); });
}

int CommandField::value(const Command& command) const
{
    return visit(*this, command, [](auto& place) {
        return int{static_cast<std::make_unsigned_t<std::decay_t<decltype(place)>>>(place)};
    });
}

void CommandField::set(Command& command, int value) const
{
    visit(*this, command,
          [value](auto& place) { place = static_cast<std::decay_t<decltype(place)>>(value); });
}
