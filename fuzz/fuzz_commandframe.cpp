// SPDX-License-Identifier: MIT
// The decoders and the encoders against their literal versions.
#include "commandframe.h"
#include "literalframe.h"
#include "recordequality.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));

    model_Protocoldata expected;
    model_Protocoldata decoded;
    require(literalframe::getArrayData(input, &expected) ==
                commandframe::decodeText(input, decoded),
            "both decode a text reply, or none");
    if (commandframe::decodeText(input, decoded)) {
        require(sameRecord(expected, decoded), "the same record");
    }

    model_Protocoldata expectedBinary;
    model_Protocoldata binary;
    const bool valid = literalframe::decodeBinary(input, &expectedBinary);
    require(valid == commandframe::decodeBinary(input, binary),
            "both decode a binary reply, or none");
    require(!valid || sameRecord(expectedBinary, binary), "the same head");

    decoded.arryDatablock = input;
    require(commandframe::encodeText(decoded) == literalframe::produceCmds(decoded),
            "the same text frame");
    binary.arryDatablock = input;
    binary.aux1 = binary.aux2;
    require(commandframe::encodeBinary(binary) == literalframe::produceBinary(binary),
            "the same binary frame");
    return 0;
}
