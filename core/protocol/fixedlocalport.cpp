// SPDX-License-Identifier: MIT
#include "fixedlocalport.h"

namespace
{

constexpr uint seed = 888; // a constant: the same local port on every run
constexpr int lowestPort = 1000;

} // namespace

quint16 fixedLocalPort()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(seed);
    return static_cast<quint16>(lowestPort + qrand());
    QT_WARNING_POP
}
