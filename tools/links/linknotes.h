// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

/// Something that came from a device and was refused.
struct Refusal {
    QString reason; ///< "a reply with a wrong checksum"
    QString from;   ///< the sender's address; empty: the link's one device
    QString bytes;  ///< as the debug line shows them: up to the first zero byte

    /// All of it in words; \a link is what the one device is called.
    QString text(const QString& link) const;
};

/// What the library says only in its debug lines: that a frame did not go out, that something came
/// which was no reply. Any thread.
namespace linknotes
{

/// Starts to listen to the debug lines. With \a verbose they all go to standard error, too.
void install(bool verbose);

/// Whether a frame was refused by the system since the last call.
bool takeSendFailure();

/// What came and was refused since the last call, oldest first, at most 10,000.
std::vector<Refusal> takeRefusals();

} // namespace linknotes
