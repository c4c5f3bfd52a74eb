// SPDX-License-Identifier: MIT
// Any text as the answers of a simulated device, on every kind of link: it is refused with words,
// or the device answers by it.
#include "tests/tools/answerexercise.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}

// Qt 5 loses the first of two members with one name, and whoever allocates through Qt has no frame
// of its own in the leak's trace.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libQt5Core";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    answerexercise::run(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    return 0;
}
