// SPDX-License-Identifier: MIT
#pragma once

#include "faults.h"
#include "replystreamcomparison.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

/// Every fault of a simulated device, on every link, with every kind of reply: the bytes that reach
/// the host, and when.
namespace faultmatrix
{

enum class Link { Udp, Serial, Vela, Usb, Osd };
constexpr int linkCount = 5;

/// A command, by the reply that it gets.
struct Kind {
    const char* name;
    int command;
    int subCode;
    int length;    ///< of the block that it asks for
    bool hasBlock; ///< on every link that sends text
};

const std::vector<Kind>& kinds();

/// One square of the matrix, without its kind.
struct Square {
    Link link;
    std::optional<Fault> fault; ///< none: all goes well
};

std::vector<Square> squares(); ///< a link, and a fault that its device can show
std::string name(const Square& square);
void PrintTo(const Square& square, std::ostream* out); ///< for GoogleTest

/// What a device sends to three commands: one of this kind, which the fault strikes, the same again
/// and one without a block. Fills in whether the fault has struck.
std::vector<replystreamcomparison::Arrival> arrivals(const Square& square, const Kind& kind,
                                                     int amount, quint64 seed,
                                                     std::chrono::milliseconds apart, bool* struck);

/// Amounts for a fault: its default one, and those about its limits.
std::vector<int> amounts(std::optional<Fault> fault);

} // namespace faultmatrix
