// SPDX-License-Identifier: MIT
#include "luatables.h"

#include "commandfield.h"
#include "commandframe.h"
#include "osdframe.h"
#include "recordtext.h"
#include "updatecommands.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <vector>

namespace
{

using replykinds::Block;

// The layouts are asked of the library itself: it encodes or decodes a frame in which one byte
// differs, and the field that follows has that place.
struct Entry {
    std::string name;
    int at;
    int size;
};
using Layout = std::vector<Entry>;

template <class... Values>
std::string text(const char* format, Values... values)
{
    std::array<char, 128> buffer{};
    std::snprintf(buffer.data(), buffer.size(), format, values...);
    return buffer.data();
}

std::string name(Block block)
{
    switch (block) {
    case Block::None:
        return "None";
    case Block::Immediate:
        return "Immediate";
    case Block::Announced:
        return "Announced";
    case Block::AnnouncedIfAny:
        return "AnnouncedIfAny";
    case Block::FixedA:
        return "FixedA";
    case Block::FixedB:
        return "FixedB";
    }
    return {};
}

std::string lua(const replykinds::Kind& kind)
{
    return text("{\"%s\", \"%s\", %s}", name(kind.onUdp).c_str(), name(kind.onStream).c_str(),
                kind.mayBeShort ? "true" : "false");
}

std::string lua(const Layout& layout)
{
    std::string all = "{";
    for (const Entry& entry : layout) {
        all +=
            text("{name = \"%s\", at = %d, size = %d}, ", entry.name.c_str(), entry.at, entry.size);
    }
    return all + '}';
}

void put(Layout& layout, const std::string& field, int at)
{
    if (!layout.empty() && layout.back().name == field) {
        ++layout.back().size;
    } else {
        layout.push_back({field, at, 1});
    }
}

// The bytes that differ, -1 if none does.
int firstDifference(const QByteArray& one, const QByteArray& other)
{
    const auto* const at = std::mismatch(one.begin(), one.end(), other.begin()).first;
    return at == one.end() ? -1 : static_cast<int>(at - one.begin());
}

// Where a command's frame changes with a field; -1 for those that are computed. Its value is the
// one that makes the first of its bytes differ.
int placeInCommand(const CommandField& field, FieldSet fields, const Command& empty)
{
    Command command = empty;
    field.set(command, 1 << (8 * field.bytes() - 8));
    return firstDifference(recordtext::frame(empty, fields), recordtext::frame(command, fields));
}

// The first field that differs when a reply's byte does; the checksum, which comes last, follows
// the others in a text frame.
std::string fieldAt(int at, FieldSet fields)
{
    const bool isText = fields == FieldSet::TextBody;
    const auto decoded = [&](char byte) {
        QByteArray bytes(isText ? commandframe::bodyLength : commandframe::binaryLength, '\0');
        bytes[at] = byte;
        Command command;
        isText ? commandframe::decodeText(commandframe::toText(bytes), command.record)
               : commandframe::decodeBinary(bytes, command.record);
        return command;
    };
    const Command empty = decoded('\0');
    const Command other = decoded('\1');
    std::string last;
    for (const CommandField& field : CommandField::all()) {
        if (field.isIn(fields)) {
            last = field.name;
            if (field.value(empty) != field.value(other)) {
                break;
            }
        }
    }
    return last;
}

Layout replyLayout(FieldSet fields)
{
    Layout layout;
    const int length =
        fields == FieldSet::TextBody ? commandframe::bodyLength : commandframe::binaryLength;
    for (int at = 0; at < length; ++at) {
        put(layout, fieldAt(at, fields), at);
    }
    return layout;
}

// As a reply's, but for the fields that only a command has.
Layout commandLayout(FieldSet fields)
{
    Layout layout = replyLayout(fields);
    for (const CommandField& field : CommandField::all()) {
        const int frameAt = field.isIn(fields) ? placeInCommand(field, fields, {}) : -1;
        const int at =
            fields == FieldSet::TextBody ? (frameAt - commandframe::digitsOffset) / 2 : frameAt;
        for (Entry& entry : layout) {
            if (frameAt >= 0 && entry.at == at) {
                entry.name = field.name;
            }
        }
    }
    return layout;
}

// Behind the data a place is negative: from the end.
Layout osdLayout()
{
    Command withData;
    withData.osd.arryData = "x";
    Layout layout;
    for (const CommandField& field : CommandField::all()) {
        if (field.isIn(FieldSet::OsdFrame)) {
            const int at = placeInCommand(field, FieldSet::OsdFrame, {});
            const bool moves = placeInCommand(field, FieldSet::OsdFrame, withData) != at;
            constexpr int shortest = osdframe::headLength + osdframe::tailLength;
            layout.push_back({field.name, moves ? at - shortest : at, 1});
        }
    }
    return layout;
}

// The field that gives this announced length when it is 1.
std::string announcing(int length)
{
    for (const CommandField& field : CommandField::all()) {
        Command command;
        if (field.isIn(FieldSet::TextBody)) {
            field.set(command, 1);
            if (replykinds::announcedLength(command.record) == length) {
                return field.name;
            }
        }
    }
    return {};
}

std::string lengthField()
{
    Command command;
    command.record.arryDatablock = "x";
    const QByteArray frame = commandframe::encodeBinary(command.record);
    return fieldAt(firstDifference(commandframe::encodeBinary({}), frame), FieldSet::BinaryHead);
}

} // namespace

std::string luatables::kinds(const KindOf& kindOf)
{
    const std::string standard = lua(replykinds::Kind{Block::None, Block::None, false});
    std::string all = "{";
    for (int code = 0; code < 256; ++code) {
        std::map<std::string, std::vector<int>> subCodes;
        for (int subCode = 0; subCode < 256; ++subCode) {
            model_Protocoldata reply;
            reply.CMD = static_cast<quint8>(code);
            reply.DAT1 = static_cast<quint8>(subCode);
            subCodes[lua(kindOf(reply))].push_back(subCode);
        }
        const auto most = std::max_element(subCodes.begin(), subCodes.end(), [](auto& a, auto& b) {
            return a.second.size() < b.second.size();
        });
        if (subCodes.size() == 1 && most->first == standard) {
            continue;
        }
        all += text("\n    [0x%02x] = {others = %s", code, most->first.c_str());
        for (const auto& [kind, these] : subCodes) {
            for (const int subCode : kind == most->first ? std::vector<int>() : these) {
                all += text(", [0x%02x] = %s", subCode, kind.c_str());
            }
        }
        all += "},";
    }
    return all + '}';
}

std::string luatables::library()
{
    using namespace commandframe;
    const Layout osd = osdLayout();
    std::string all = "local library = {\n";
    all += text("text = {start = \"%c\", command = \"%c\", reply = \"%c\", finish = \"%c\", "
                "length = %d, digits = %d},\n",
                startMark, commandMark, replyMark, endMark, textLength, digitsOffset);
    all +=
        text("binary = {length = %d, announced = \"%s\"},\n", binaryLength, lengthField().c_str());
    all += "command = " + lua(commandLayout(FieldSet::TextBody)) + ",\n";
    all += "reply = " + lua(replyLayout(FieldSet::TextBody)) + ",\n";
    all += "binary_command = " + lua(commandLayout(FieldSet::BinaryHead)) + ",\n";
    all += "binary_reply = " + lua(replyLayout(FieldSet::BinaryHead)) + ",\n";
    all += "osd = " + lua(osd) + ",\n";
    all += text("endpoint = {head = %d, tail = %d, mark = \"%s\", acknowledgement = %d},\n",
                osdframe::headLength, osdframe::tailLength, osdframe::acknowledgementMark,
                osdframe::acknowledgementLength);
    all += text("announced = {low = \"%s\", high = \"%s\"},\n", announcing(1).c_str(),
                announcing(256).c_str());
    all += text("lengths = {FixedA = %d, FixedB = %d, short = %d},\n", replykinds::fixedLengthA,
                replykinds::fixedLengthB, replykinds::fixedLengthAShort);
    all += "standard = " + lua(replykinds::Kind{Block::None, Block::None, false}) + ",\n";
    all += "kinds = " + kinds() + ",\n";
    all += "updates = {";
    for (const char* code : updatecommands::codes) {
        all += text("[\"%s\"] = true, ", code);
    }
    all += "},\nusb_products = {";
    for (const int product : updatecommands::products) {
        all += text("\"%04x:%04x\", ", updatecommands::vendor, product);
    }
    return all + "},\n}\n";
}
