// SPDX-License-Identifier: MIT
#include "hidhandle.h"

#include "linktap.h"
#include "receivebuffer.h"

#include <hidapi.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>

namespace
{

constexpr int failure = -1;
constexpr std::size_t readLength = 1024; // the longest input report
constexpr int readTimeoutMs = 100;
constexpr std::chrono::milliseconds pauseBeforeRead{100}; // also while reports are waiting
constexpr std::chrono::seconds writePatience{1};
constexpr std::chrono::milliseconds writePause{5};

std::mutex openLock; // a leaf: hidapi's error text of opening, one for the process

// As hid_open chooses it: 0 in the search stands for any id, but not in an id that is asked for.
std::string pathOfFirst(unsigned short vendorId, unsigned short productId)
{
    const std::unique_ptr<hid_device_info, decltype(&hid_free_enumeration)> found(
        hid_enumerate(vendorId, productId), hid_free_enumeration);
    for (const hid_device_info* info = found.get(); info != nullptr; info = info->next) {
        if (info->vendor_id == vendorId && info->product_id == productId) {
            return info->path;
        }
    }
    return {};
}

} // namespace

// While a handle is open the kernel gives the number in its path to no other device: both are of
// the same node.
std::shared_ptr<HidHandle> HidHandle::open(unsigned short vendorId, unsigned short productId)
{
    const std::lock_guard lock(openLock);
    const std::string path = pathOfFirst(vendorId, productId);
    Handle forReads(path.empty() ? nullptr : hid_open_path(path.c_str()), hid_close);
    Handle forWrites(forReads ? hid_open_path(path.c_str()) : nullptr, hid_close);
    if (forWrites == nullptr) {
        return nullptr;
    }
    return std::shared_ptr<HidHandle>(new HidHandle(std::move(forReads), std::move(forWrites)));
}

HidHandle::HidHandle(Handle forReads, Handle forWrites)
    : reader(std::move(forReads)), writer(std::move(forWrites))
{
}

void HidHandle::readAll(ReceiveBuffer& buffer, const LinkTap& tap)
{
    token.run([this, &buffer, &tap] {
        while (token.goesOn()) {
            std::this_thread::sleep_for(pauseBeforeRead);
            if (!buffer.isFull()) {
                readInto(buffer, tap);
            }
        }
    });
}

bool HidHandle::readInto(ReceiveBuffer& buffer, const LinkTap& tap)
{
    std::array<unsigned char, readLength> report{};
    const auto* const bytes = reinterpret_cast<const char*>(report.data());
    int count = 0;
    {
        const std::lock_guard lock(devLock);
        if (!token.isSet()) {
            return false;
        }
        count = hid_read_timeout(reader.get(), report.data(), report.size(), readTimeoutMs);
        if (count > 0) {
            buffer.append(bytes, count);
        }
    }
    if (count > 0) {
        tap.tell(LinkTap::Kind::Received, bytes, count);
    } else if (count == failure && !isLost.exchange(true)) {
        tap.tell(LinkTap::Kind::Lost);
    }
    return true;
}

bool HidHandle::write(const QByteArray& data)
{
    std::array<unsigned char, reportLength> report{};
    std::copy_n(data.cbegin(), qMin(data.size(), reportLength - 1), report.begin() + 1);
    const std::lock_guard lock(writeLock);
    return token.isSet() && hid_write(writer.get(), report.data(), report.size()) != failure;
}

void HidHandle::close()
{
    token.set(false);
    const std::lock_guard readers(devLock);
    std::unique_lock writers(writeLock, std::try_to_lock);
    const auto end = std::chrono::steady_clock::now() + writePatience;
    while (!writers && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(writePause);
        [[maybe_unused]] const bool isFree = writers.try_lock();
    }
    if (writers) {
        reader.reset();
        writer.reset();
    }
}
