// SPDX-License-Identifier: MIT
#pragma once

#include "emulatedhid.h"
#include "simulatedlink.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string>

/// A simulated device on an emulated hidraw node. This process sees the node, and every process
/// with the environment variable of hint.
///
/// Reports have 64 bytes. Every reply begins a report, its block follows directly, and zeros pad
/// the last report of an answer. The zeros behind a command that is alone in its report are taken
/// for padding, so its block may begin in the next report. A block that begins with 45 zeros loses
/// them.
class HidSimulator : public SimulatedLink
{
    Q_OBJECT

public:
    HidSimulator(quint16 vendorId, quint16 productId, const SimulatedDevice::Settings& settings);
    ~HidSimulator() override;

    bool open() override;
    QString address() const override;
    QString hint() const override;

protected:
    void hangUp(Fault how) override;

private:
    void arrive(const std::string& report); // on a thread of the testbed
    Q_INVOKABLE void take();                // posted by name: no functor crosses the threads
    qint64 write(const QByteArray& bytes);
    void flush();

    quint16 vendor;
    quint16 product;
    std::mutex lock;                 // a leaf: arrived
    std::deque<std::string> arrived; // reports with their numbers
    QByteArray pending;              // an answer whose block may follow
    std::unique_ptr<HidTestbed> testbed;
    std::unique_ptr<EmulatedHid> hid;
};
