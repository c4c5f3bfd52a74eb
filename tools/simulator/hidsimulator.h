// SPDX-License-Identifier: MIT
#pragma once

#include "emulatedhid.h"
#include "simulatedlink.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string>

/// A simulated device on an emulated hidraw node, which this process sees, and every one that is
/// started with the environment of hint.
///
/// Reports have 64 bytes, the last one of an answer filled with zeros; every reply begins a report
/// and its block follows directly. A command that fills a report with zeros is taken without them,
/// so a block behind it may begin in the next report; the same happens to a block whose first 45
/// bytes are zeros.
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
    Q_INVOKABLE void take();                // posted by name: no object of ours crosses the threads
    qint64 write(const QByteArray& bytes);
    void flush();

    quint16 vendor;
    quint16 product;
    std::mutex lock;                 // a leaf: arrived
    std::deque<std::string> arrived; // reports with their numbers
    QByteArray pending;              // an answer whose rest may follow
    std::unique_ptr<HidTestbed> testbed;
    std::unique_ptr<EmulatedHid> hid;
};
