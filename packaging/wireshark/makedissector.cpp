// SPDX-License-Identifier: MIT
// Writes the dissector to the second file: the library's tables, and the first file behind them.
#include "luatables.h"

#include <cstdio>
#include <fstream>

int main(int count, char** arguments)
{
    if (count != 3) {
        std::fputs("makedissector SOURCE TARGET\n", stderr);
        return 2;
    }
    const std::ifstream source(arguments[1]);
    std::ofstream target(arguments[2]);
    target << luatables::library() << source.rdbuf();
    target.close();
    return source && target ? 0 : 1;
}
