// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

/// The device's end of a HID device that a real kernel has made: a descriptor from which its output
/// reports are read. A thread of its own collects them.
class KernelHid
{
public:
    virtual ~KernelHid() = default;
    KernelHid(const KernelHid&) = delete;
    KernelHid& operator=(const KernelHid&) = delete;

    static constexpr int reportData = 64; ///< bytes of a report, each way

    /// A report descriptor with 64 bytes each way and no report numbers.
    static QByteArray descriptor();

    /// Number of hidraw nodes in /dev. The kernel makes one some time after its device.
    static int nodes();

    virtual bool send(const QByteArray& report) = 0; ///< one input report
    virtual void unplug() = 0;

    /// The data of every output report so far, without a report number.
    std::vector<QByteArray> written() const;

protected:
    KernelHid() = default;

    /// Starts the thread, which calls readOne until that returns false.
    void startCollecting();
    void stopCollecting(); ///< waits for the thread

    /// Waits up to 20 ms for one output report. False once there can be no more.
    virtual bool readOne(QByteArray& report) = 0;

private:
    void collect();

    mutable std::mutex lock; // a leaf: output
    std::vector<QByteArray> output;
    std::atomic<bool> isRunning{false};
    std::thread collector;
};
