// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"

#include <cstddef>
#include <vector>

class OsdSimulator;

/// What the endpoints have handed to the reference host, and records to hand to the endpoints.
namespace osdhost
{

std::size_t size();                    ///< acknowledgements so far
std::vector<model_OsdParam> records(); ///< a copy of them, oldest first
QByteArray bytes();                    ///< their third bytes, sorted

/// A record with ch0 ... ch10 = 0 ... 10, but for ch2.
model_OsdParam command(const QString& ip, char ch2 = 2, const QByteArray& data = {});

/// Sends commands with this ch2 to an endpoint until it answers: those that are sent before its
/// client is connected are lost. Then waits until everything that was sent before is answered.
/// False if that does not come about. The endpoint must answer each command, and no one else.
bool settle(const QString& ip, const OsdSimulator& endpoint, char ch2);

} // namespace osdhost
