// SPDX-License-Identifier: MIT
#pragma once

#include "udpsimulator.h"

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <memory>
#include <vector>

/// Simulated UDP devices, each at an address of its own below 127.0.0.0/8, on one thread. They
/// count what they are told by DAT1 and DAT2, which number a device's commands.
class Fleet
{
public:
    static constexpr int commandsOfEach = 65536;

    explicit Fleet(int size) : counts(static_cast<std::size_t>(size))
    {
        for (auto& count : counts) {
            count = std::vector<quint8>(commandsOfEach);
        }
        worker.moveToThread(&thread);
        thread.start();
        onThread([this, size] {
            for (int i = 0; i < size; ++i) {
                auto device = std::make_unique<UdpSimulator>(QHostAddress(host(i)), port,
                                                             SimulatedDevice::Settings());
                opened += device->open() ? 1 : 0;
                QObject::connect(
                    device.get(), &Simulation::exchanged, device.get(),
                    [&count = counts[static_cast<std::size_t>(i)]](const Exchange& exchange) {
                        const auto& head = exchange.command.head;
                        ++count[head.dat1 * 256U + head.dat2];
                    });
                devices.push_back(std::move(device));
            }
        });
    }
    ~Fleet()
    {
        onThread([this] { devices.clear(); });
        thread.quit();
        thread.wait();
    }
    Fleet(const Fleet&) = delete;
    Fleet& operator=(const Fleet&) = delete;

    int size() const { return static_cast<int>(counts.size()); }
    bool isOpen() const { return opened == size(); }

    static QString host(int device)
    {
        return QStringLiteral("127.1.%1.%2").arg(device / 250).arg(device % 250 + 1);
    }
    static QString address(int device)
    {
        return QStringLiteral("udp://%1:%2").arg(host(device)).arg(port);
    }

    /// How often each command has come, by device and by DAT1 * 256 + DAT2.
    std::vector<std::vector<quint8>> commands()
    {
        std::vector<std::vector<quint8>> copy;
        onThread([this, &copy] { copy = counts; });
        return copy;
    }

private:
    template <class Function>
    void onThread(Function&& function)
    {
        QMetaObject::invokeMethod(&worker, std::forward<Function>(function),
                                  Qt::BlockingQueuedConnection);
    }

    static constexpr quint16 port = 2000;

    QThread thread;
    QObject worker; // is told what to do there
    std::vector<std::unique_ptr<UdpSimulator>> devices;
    std::vector<std::vector<quint8>> counts;
    int opened = 0;
};
