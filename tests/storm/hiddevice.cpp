// SPDX-License-Identifier: MIT
#include "hiddevice.h"

#include "emulatedhid.h"

HidDevice::HidDevice() : testbed(std::make_unique<HidTestbed>()) {}
HidDevice::~HidDevice() = default;

bool HidDevice::connect()
{
    // The testbed's own thread answers, while nothing is locked.
    devices.push_back(std::make_unique<EmulatedHid>(
        *testbed, vendor, product, [this, number = devices.size()](const std::string& /*report*/) {
            std::unique_lock guard(lock, std::try_to_lock);
            if (guard && isThere && number + 1 == devices.size()) {
                send(answer);
            }
        }));
    return true;
}

void HidDevice::disconnect(bool /*reset*/)
{
    devices.back()->holdWrites(false);
    devices.back()->unplug();
}

void HidDevice::send(const QByteArray& bytes)
{
    (void)devices.back()->sendPadded(bytes);
}

void HidDevice::hold(bool on)
{
    if (isThere) {
        devices.back()->holdWrites(on);
    }
}

void HidDevice::forgetUnplugged()
{
    std::vector<std::unique_ptr<EmulatedHid>> gone;
    {
        const std::lock_guard guard(lock);
        gone.swap(devices);
    }
}
