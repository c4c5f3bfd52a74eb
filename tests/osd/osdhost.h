// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"

#include <cstddef>
#include <vector>

/// What the endpoints have handed to the reference host, and records to hand to the endpoints.
namespace osdhost
{

std::size_t size();                    ///< acknowledgements so far
std::vector<model_OsdParam> records(); ///< a copy of them, oldest first
QByteArray bytes();                    ///< their third bytes, sorted

/// A record with ch0 ... ch10 = 0 ... 10, but for ch2.
model_OsdParam command(const QString& ip, char ch2 = 2, const QByteArray& data = {});

} // namespace osdhost
