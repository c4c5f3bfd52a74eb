// SPDX-License-Identifier: MIT
#include "fixedlocalport.h"

namespace
{

constexpr int lowestPort = 1000;

#if QT_VERSION_MAJOR < 6
int firstRandomValue()
{
    constexpr uint seed = 888; // a constant: the same local port on every run
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(seed);
    return qrand();
    QT_WARNING_POP
}
#else // without that generator: the value that it gave
int firstRandomValue()
{
    return 4104;
}
#endif

} // namespace

quint16 fixedLocalPort()
{
    return static_cast<quint16>(lowestPort + firstRandomValue());
}
