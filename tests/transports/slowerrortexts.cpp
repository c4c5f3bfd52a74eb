// SPDX-License-Identifier: MIT
#include "slowerrortexts.h"

#include <chrono>
#include <cstddef>
#include <thread>

#include <dlfcn.h>

std::atomic<bool> slowerrortexts::isOn{false};
std::atomic<int> slowerrortexts::count{0};
std::atomic<int> slowerrortexts::mostBeside{0};

namespace
{

std::atomic<int> inMaking{0};

} // namespace

// hidapi makes its texts with this.
extern "C" __attribute__((visibility("default"))) size_t mbstowcs(wchar_t* out, const char* text,
                                                                  size_t size)
{
    using Function = size_t (*)(wchar_t*, const char*, size_t);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "mbstowcs"));
    if (slowerrortexts::isOn) {
        ++slowerrortexts::count;
        const int beside = inMaking++;
        if (beside > slowerrortexts::mostBeside) {
            slowerrortexts::mostBeside = beside;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        --inMaking;
    }
    return real(out, text, size);
}
