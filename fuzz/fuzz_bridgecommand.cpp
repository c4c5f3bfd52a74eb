// SPDX-License-Identifier: MIT
// Any text as a command that comes over MQTT, for every kind of link: it is refused with words, or
// it is a command that keeps to the limits.
#include "commandmessage.h"
#include "toolerror.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}

// Qt 5 loses the first of two members with one name.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libQt5Core";
}

namespace
{

constexpr int blockLimit = 40;

void require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

void parse(const QByteArray& payload, FieldSet fields)
{
    try {
        const CommandMessage message = CommandMessage::parse(payload, fields, blockLimit);
        const Command& command = message.command;
        require(payload.size() <= CommandMessage::sizeLimit(blockLimit));
        require(command.record.arryDatablock.size() + command.osd.arryData.size() <= blockLimit);
        require(command.raw.isEmpty() && command.to.isEmpty());
        require(message.timeoutMs >= 1 && message.timeoutMs <= 60000);
        require(message.tries >= 1 && message.tries <= 10);
    } catch (const BadInput& refusal) {
        require(*refusal.what() != '\0');
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
