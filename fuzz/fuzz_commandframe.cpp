// SPDX-License-Identifier: MIT
// The decoders against their literal versions, and the join of any reply with any block.
#include "blockjoin.h"
#include "commandframe.h"
#include "literalframe.h"
#include "recordequality.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace
{

void require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));

    model_Protocoldata expected;
    model_Protocoldata decoded;
    require(literalframe::getArrayData(input, &expected) ==
            commandframe::decodeText(input, decoded));
    if (commandframe::decodeText(input, decoded)) {
        require(sameRecord(expected, decoded));
    }

    model_Protocoldata expectedBinary;
    model_Protocoldata binary;
    const bool valid = literalframe::decodeBinary(input, &expectedBinary);
    require(valid == commandframe::decodeBinary(input, binary));
    require(!valid || sameRecord(expectedBinary, binary));

    const auto joined = blockjoin::join(decoded, input);
    require(joined.record.arryDatablock.size() <= input.size());
    decoded.arryDatablock = input;
    require(commandframe::encodeText(decoded) == literalframe::produceCmds(decoded));
    return 0;
}
