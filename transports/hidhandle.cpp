// SPDX-License-Identifier: MIT
#include "hidhandle.h"

#include "receivebuffer.h"

#include <hidapi.h>

#include <array>

namespace
{

constexpr int failure = -1;

std::mutex openLock; // a leaf: hidapi's error text of opening, one for the process

} // namespace

std::shared_ptr<HidHandle> HidHandle::open(unsigned short vendorId, unsigned short productId)
{
    const std::lock_guard lock(openLock);
    hid_device* const opened = hid_open(vendorId, productId, nullptr);
    if (opened == nullptr) {
        return nullptr;
    }
    return std::shared_ptr<HidHandle>(new HidHandle(opened));
}

HidHandle::HidHandle(hid_device_* opened) : device(opened) {}

HidHandle::~HidHandle()
{
    close();
}

bool HidHandle::readInto(ReceiveBuffer& buffer)
{
    std::array<unsigned char, readLength> report{};
    const std::lock_guard lock(readLock);
    std::unique_lock exclusion(writeLock, std::defer_lock);
    if (hasFailed) {
        exclusion.lock();
    }
    if (device == nullptr) {
        return false;
    }
    const int count = hid_read_timeout(device, report.data(), report.size(), readTimeoutMs);
    if (count == failure) {
        hasFailed = true;
        return true;
    }
    if (exclusion) {
        hasFailed = false;
    }
    if (count > 0) {
        buffer.append(reinterpret_cast<const char*>(report.data()), count);
    }
    return true;
}

bool HidHandle::write(const unsigned char* report)
{
    {
        const std::lock_guard lock(writeLock);
        if (!hasFailed) {
            return writeLocked(report);
        }
    }
    const std::lock_guard exclusion(readLock);
    const std::lock_guard lock(writeLock);
    const bool written = writeLocked(report);
    hasFailed = !written;
    return written;
}

bool HidHandle::writeLocked(const unsigned char* report)
{
    if (closing || device == nullptr) {
        return false;
    }
    if (hid_write(device, report, reportLength) == failure) {
        hasFailed = true;
        return false;
    }
    return true;
}

void HidHandle::close()
{
    closing = true;
    const std::lock_guard readers(readLock);
    const std::lock_guard writers(writeLock);
    if (device != nullptr) {
        hid_close(device);
        device = nullptr;
    }
}
