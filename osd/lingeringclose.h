// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>

/// The end of TCP connections whose last bytes may still be on their way. A connection that is
/// closed with something unread is reset, and so is one whose peer answers afterwards: the peer
/// may then not see what was sent to it before. So the connection is shut down for sending only,
/// and what the peer answers is dropped until it has hung up, too.
namespace lingeringclose
{

/// Takes over a TCP socket, which is closed when the peer has hung up, too, after the limit, or at
/// the end of the process; the system goes on sending what it has been given in any case. At most
/// 128 are kept, then the oldest is closed. One thread serves all of them while there are any; if
/// it is refused they are closed at once. Does not wait. Any thread.
void begin(int descriptor, std::chrono::milliseconds limit = std::chrono::seconds(60));

} // namespace lingeringclose
