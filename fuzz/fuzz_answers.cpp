// SPDX-License-Identifier: MIT
// Any text as the answers of a simulated device, on every kind of link: it is refused with words,
// or the device answers by it.
#include "tests/tools/answerexercise.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    answerexercise::run(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    return 0;
}
