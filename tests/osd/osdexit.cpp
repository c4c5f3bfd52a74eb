// SPDX-License-Identifier: MIT
// A host that ends while its endpoints connect, send and lose their connections: osdexit PORT SEED.
// Code 0 unless something is wrong.
#include "corefactory.h"
#include "icoreosdbase.h"
#include "model_osdparam.h"

#include <QCoreApplication>

#include <cstdlib>
#include <random>
#include <thread>

int main(int argc, char** argv)
{
    constexpr int endpoints = 60;
    const QCoreApplication application(argc, argv);
    if (argc != 3) {
        return 1;
    }
    const int port = std::atoi(argv[1]);
    std::mt19937 random(static_cast<unsigned>(std::atoi(argv[2])));
    ICoreOsdBase* const manager = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    const auto ipOf = [](unsigned long endpoint) {
        return QStringLiteral("127.0.0.%1").arg(endpoint + 1);
    };
    for (unsigned i = 0; i < endpoints; ++i) {
        manager->openClient(ipOf(i), i % 4 == 3 ? 1 : port); // nobody listens on port 1
    }
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 25'000);
    model_OsdParam record;
    while (std::chrono::steady_clock::now() < end) {
        record.strIP = ipOf(random() % endpoints);
        manager->sendDatatoDevice(&record);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 200));
    }
    switch (random() % 3) {
    case 0:
        std::exit(0);
    case 1:
        std::thread([] { std::exit(0); }).join();
        return 0;
    default:
        return 0;
    }
}
