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

HidHandle::HidHandle(hid_device_* opened) : hidDev(opened) {}

HidHandle::~HidHandle()
{
    close();
}

bool HidHandle::readInto(ReceiveBuffer& buffer)
{
    std::array<unsigned char, readLength> report{};
    const std::lock_guard lock(devLock);
    std::unique_lock exclusion(writeLock, std::defer_lock);
    if (hasFailed) {
        exclusion.lock();
    }
    if (hidDev == nullptr) {
        return false;
    }
    const int count = hid_read_timeout(hidDev, report.data(), report.size(), readTimeoutMs);
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
    const std::lock_guard exclusion(devLock);
    const std::lock_guard lock(writeLock);
    const bool written = writeLocked(report);
    hasFailed = !written;
    return written;
}

bool HidHandle::writeLocked(const unsigned char* report)
{
    if (closing || hidDev == nullptr) {
        return false;
    }
    if (hid_write(hidDev, report, reportLength) == failure) {
        hasFailed = true;
        return false;
    }
    return true;
}

void HidHandle::close()
{
    closing = true;
    const std::lock_guard readers(devLock);
    const std::lock_guard writers(writeLock);
    if (hidDev != nullptr) {
        hid_close(hidDev);
        hidDev = nullptr;
    }
}
