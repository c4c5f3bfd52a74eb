// SPDX-License-Identifier: MIT
// A program that loads a module with the library in it, and gives it up before its own end.
#include <cstdio>

#include <dlfcn.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    void* const module = dlopen(END_MODULE, RTLD_NOW);
    if (module == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    const auto stage = reinterpret_cast<int (*)(int, char**)>(dlsym(module, "endstage"));
    const int result = stage(argc, argv);
    dlclose(module);
    usleep(10'000); // what still runs, runs without the module
    return result;
}
