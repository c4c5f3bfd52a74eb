// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <chrono>

/// What a service tells the service manager that started it, if one did. Nothing blocks.
namespace servicenotice
{

/// A line such as READY=1. Lost if nobody asked for it.
void tell(const QByteArray& line);

/// How often the manager wants to hear WATCHDOG=1 at least; 0: it does not.
std::chrono::milliseconds watchdog();

} // namespace servicenotice
