// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <memory>

class HidHandle;
class ReplyStream;

/// The reading half of one open USB device: moves its input reports to the receive buffer of one
/// stream, a report per turn. A turn is a pause of 100 ms and a read of up to 100 ms, also when
/// reports are waiting. While the receive buffer is full it reads nothing: what the device sends
/// then is the kernel's to keep or to drop.
///
/// Its thread shares ownership of it, and of the device and the stream, and touches nothing else: a
/// reader that is still on its way when the next device is opened ends on its own.
class UsbReader
{
public:
    UsbReader(std::shared_ptr<HidHandle> opened, std::shared_ptr<ReplyStream> destination);

    const std::shared_ptr<HidHandle>& device() const { return handle; }

    /// Starts a detached thread that runs read. False if the system refuses it.
    [[nodiscard]] static bool start(const std::shared_ptr<UsbReader>& reader);

    void read(); ///< turns until stop, or until the device is closed
    void stop() { bReadRun = false; }

private:
    const std::shared_ptr<HidHandle> handle;
    const std::shared_ptr<ReplyStream> stream;
    std::atomic<bool> bReadRun{true};
};
