// SPDX-License-Identifier: MIT
// Any script of chunks through the library's stream parser and the literal one: they must agree.
#include "replystreamcomparison.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QString difference = replystreamcomparison::difference(
        QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    if (!difference.isEmpty()) {
        std::fprintf(stderr, "%s\n", qPrintable(difference));
        std::abort();
    }
    return 0;
}
