// SPDX-License-Identifier: MIT
// Any text as a command that comes over MQTT, for every kind of link: it is refused with words, or
// it is a command that keeps to the limits.
#include "commandmessage.h"
#include "require.h"
#include "toolerror.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace
{

constexpr int blockLimit = 40;

void parse(const QByteArray& payload, FieldSet fields)
{
    try {
        const CommandMessage message = CommandMessage::parse(payload, fields, blockLimit);
        const Command& command = message.command;
        require(payload.size() <= CommandMessage::sizeLimit(blockLimit), "the payload's limit");
        require(command.record.arryDatablock.size() + command.osd.arryData.size() <= blockLimit,
                "the block's limit");
        require(command.raw.isEmpty() && command.to.isEmpty(), "no bytes as they are, no address");
        require(message.timeoutMs >= 1 && message.timeoutMs <= 60000, "the time's limits");
        require(message.tries >= 1 && message.tries <= 10, "the tries' limits");
    } catch (const BadInput& refusal) {
        require(*refusal.what() != '\0', "a refusal has words");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray payload(reinterpret_cast<const char*>(data), static_cast<int>(size));
    for (const FieldSet fields : {FieldSet::TextBody, FieldSet::BinaryHead, FieldSet::OsdFrame}) {
        parse(payload, fields);
    }
    return 0;
}
