// SPDX-License-Identifier: MIT
#include "kernelhid.h"

#include <QDir>

QByteArray KernelHid::descriptor()
{
    return QByteArray::fromHex("0600ff" // usage page: vendor's
                               "0901"   // usage
                               "a101"   // collection
                               "1500"   // logical minimum 0
                               "26ff00" // logical maximum 255
                               "7508"   // 8 bits
                               "9540"   // 64 times
                               "0902"
                               "8102" // input
                               "0903"
                               "9102" // output
                               "c0");
}

int KernelHid::nodes()
{
    const QDir dev(QStringLiteral("/dev"), QStringLiteral("hidraw*"), QDir::NoSort, QDir::System);
    return static_cast<int>(dev.count());
}

std::vector<QByteArray> KernelHid::written() const
{
    const std::lock_guard guard(lock);
    return output;
}

void KernelHid::startCollecting()
{
    isRunning = true;
    collector = std::thread([this] { collect(); });
}

void KernelHid::stopCollecting()
{
    isRunning = false;
    if (collector.joinable()) {
        collector.join();
    }
}

void KernelHid::collect()
{
    QByteArray report;
    while (isRunning && readOne(report)) {
        if (!report.isEmpty()) {
            const std::lock_guard guard(lock);
            output.push_back(report);
        }
    }
}
