// SPDX-License-Identifier: MIT
#pragma once

#include "peers.h"

#include <memory>

class EmulatedHid;
class HidTestbed;

/// A HID device on an emulated hidraw node.
class HidDevice : public Peer
{
public:
    static constexpr unsigned short vendor = 0x04B4;
    static constexpr unsigned short product = 0x2000;

    HidDevice();
    ~HidDevice() override;
    void forgetUnplugged(); ///< destroys those that nobody has open any more

    bool diesWithoutDescriptors() const override { return false; } ///< the emulation opens files

private:
    bool connect() override;
    void disconnect(bool reset) override;
    std::vector<int> descriptors() const override { return {}; }
    void receive(int /*descriptor*/) override {}
    void send(const QByteArray& bytes) override;
    void hold(bool on) override;

    std::unique_ptr<HidTestbed> testbed;
    std::vector<std::unique_ptr<EmulatedHid>> devices; // the last one is plugged in
};
