// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <memory>
#include <vector>

class LinkObserver;
class ObservableLink;

/// Something that came from a device and was refused.
struct Refusal {
    QString reason; ///< "a reply with a wrong checksum"
    QString from;   ///< the sender's address; empty: the link's one device
    QString bytes;  ///< as recordtext::frameText shows them

    /// All of it in words; \a link is what the one device is called.
    QString text(const QString& link) const;
};

/// What happened on the tool's links and neither a send nor the host's queue tells. Any thread.
namespace linknotes
{

/// Sends the library's debug lines to standard error if \a verbose, and every other message always.
void install(bool verbose);

/// Takes notes of a link from now on.
void watch(ObservableLink& link);

/// Whether a frame was refused by the system since the last call.
bool takeSendFailure();

/// What came and was refused since the last call, oldest first, at most 10,000.
std::vector<Refusal> takeRefusals();

} // namespace linknotes
