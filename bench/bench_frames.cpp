// SPDX-License-Identifier: MIT
// Frames of the library against the same frames built one character at a time.
#include "core_udp.h"
#include "literalframe.h"
#include "ratio.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <cstring>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    core_UDP transport;
    model_Protocoldata record;
    record.HEAD = 0x12;
    record.CMD = 0xab;
    record.DAT1 = 0xff;

    const auto [literal, library] =
        ratio::inTurns([&] { benchmark::DoNotOptimize(literalframe::produceCmds(record)); },
                       [&] { benchmark::DoNotOptimize(transport.produceCmds(record)); });
    ratio::printFaster("produceCmds, no block", literal, library, 8);

    record.arryDatablock = QByteArray(4096, 'b');
    const auto size = transport.produceCmds(record).size();
    const QByteArray source(size, 'b');
    const auto [copy, withBlock] = ratio::inTurns(
        [&] {
            QByteArray frame(size, Qt::Uninitialized);
            std::memcpy(frame.data(), source.constData(), static_cast<std::size_t>(size));
            benchmark::DoNotOptimize(frame);
        },
        [&] { benchmark::DoNotOptimize(transport.produceCmds(record)); });
    ratio::printTimes("produceCmds, 4 KiB block, to one copy", copy, withBlock, 1.5);

    const QByteArray valid = "<F010203040506071c>";
    const auto [literalDecode, decode] =
        ratio::inTurns([&] { benchmark::DoNotOptimize(literalframe::getArrayData(valid)); },
                       [&] { benchmark::DoNotOptimize(transport.getArrayData(valid)); });
    ratio::printFaster("getArrayData", literalDecode, decode, 15);
    return 0;
}
