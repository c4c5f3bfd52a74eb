// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct _UMockdevTestbed;

/// A /sys and a /dev of this process's own, into which emulated HID devices are plugged: libudev
/// and hidapi look there, and so do programs that it starts. The executable must be linked with
/// core_manage_hid_testbed, which redirects the system calls.
///
/// It is told to programs in the environment variable that locationVariable names.
///
/// One at a time. Devices go before it, and open handles before their devices: a write on a handle
/// that outlives the testbed blocks for ever. The working directory must not be /.
class HidTestbed
{
public:
    static constexpr const char* locationVariable = "UMOCKDEV_DIR";

    HidTestbed();
    ~HidTestbed();
    HidTestbed(const HidTestbed&) = delete;
    HidTestbed& operator=(const HidTestbed&) = delete;

    _UMockdevTestbed* testbed() const { return bed; }
    QString root() const; ///< the directory that holds them
    int nextNumber() { return ++lastNumber; }

private:
    _UMockdevTestbed* bed;
    int lastNumber = -1;
};
