// SPDX-License-Identifier: MIT
#include "usbreader.h"

#include "detachedthread.h"
#include "hidhandle.h"
#include "processend.h"
#include "replystream.h"

#include <chrono>
#include <thread>

namespace
{

constexpr std::chrono::milliseconds pauseBeforeRead{100};

} // namespace

UsbReader::UsbReader(std::shared_ptr<HidHandle> opened, std::shared_ptr<ReplyStream> destination)
    : handle(std::move(opened)), stream(std::move(destination))
{
}

bool UsbReader::start(const std::shared_ptr<UsbReader>& reader)
{
    return startDetached([reader] { reader->read(); });
}

void UsbReader::read()
{
    while (bReadRun && !processend::begun()) {
        std::this_thread::sleep_for(pauseBeforeRead);
        const bool isHeldBack = stream->received().isFull(); // what follows waits in the kernel
        if (!isHeldBack && !handle->readInto(stream->received())) {
            return;
        }
    }
}
