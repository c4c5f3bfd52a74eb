// SPDX-License-Identifier: MIT
// A host of one on-screen-display endpoint. Nothing says when the endpoint is connected, and a
// record that comes before is dropped: so this host sends until it is acknowledged.
//
//   coremanage simulate osd://127.0.0.1:10001     # stands in for the endpoint
//   osd 127.0.0.1 10001 'Gate 7'
#include "biz_osd_cmdswork.h"
#include "corefactory.h"
#include "icoreosdbase.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace
{

constexpr int attempts = 50;
constexpr std::chrono::milliseconds pause{200};

// Acknowledgements have a queue and a lock of their own, and no flag.
std::optional<model_OsdParam> takeAcknowledgement()
{
    const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
    if (biz_Osd_CMDSWork::receivequeueOsd.empty()) {
        return std::nullopt;
    }
    std::optional<model_OsdParam> first(std::move(biz_Osd_CMDSWork::receivequeueOsd.front()));
    biz_Osd_CMDSWork::receivequeueOsd.pop_front();
    return first;
}

std::optional<model_OsdParam> sendUntilAcknowledged(ICoreOsdBase& manager, model_OsdParam record)
{
    std::optional<model_OsdParam> acknowledgement;
    for (int attempt = 0; attempt < attempts && !acknowledgement; ++attempt) {
        manager.sendDatatoDevice(&record);
        std::this_thread::sleep_for(pause);
        acknowledgement = takeAcknowledgement();
    }
    return acknowledgement;
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv); // its event loop need not run
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 4) {
        std::fputs("usage: osd ADDRESS PORT TEXT\n", stderr);
        return 2;
    }
    QLoggingCategory::setFilterRules("default.debug=false");

    // The shared manager: endpoints take records from no other.
    ICoreOsdBase* const manager = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    manager->openClient(arguments.at(1), arguments.at(2).toInt());
    model_OsdParam record;
    record.ch2 = 1;
    record.arryData = arguments.at(3).toUtf8();
    record.strIP = arguments.at(1); // who sends it: the text that openClient was given
    const auto acknowledgement = sendUntilAcknowledged(*manager, record);
    delete std::exchange(CoreFactory::iOsdCore, nullptr); // the factory would not

    if (!acknowledgement) {
        std::fputs("no acknowledgement\n", stderr);
        return 1;
    }
    std::printf("%s acknowledged: %s\n", qPrintable(acknowledgement->strIP),
                acknowledgement->arryData.toHex().constData());
    return 0;
}
