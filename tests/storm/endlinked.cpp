// SPDX-License-Identifier: MIT
#include "endstage.h"

int main(int argc, char** argv)
{
    return endstage(argc, argv);
}
