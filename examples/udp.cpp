// SPDX-License-Identifier: MIT
// A host of one device on the network: sends one command, waits for the reply with its block.
//
//   coremanage simulate udp://127.0.0.1:1000      # stands in for the device
//   udp 127.0.0.1 1000
#include "corefactory.h"
#include "icorebase.h"
#include "replies.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>
#include <memory>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3) {
        std::fputs("usage: udp ADDRESS PORT\n", stderr);
        return 2;
    }
    // The library's debug lines are of the category "default". The environment has the last word:
    // QT_LOGGING_RULES='default.debug=true' shows them.
    QLoggingCategory::setFilterRules("default.debug=false");

    // Made and destroyed on the thread that runs the event loop.
    const std::unique_ptr<ICoreBase> link(CoreFactory::creatCoreObjInstance(ConnUdp));
    link->setDeviceIP(arguments.at(1));
    link->setPort(arguments.at(2).toInt());

    model_Protocoldata command;
    command.CMD = 0x8b;
    command.DAT1 = 5;
    takeReplies(); // what is old is no answer, and the flag is down
    link->sendDatatoDevice(&command);

    const auto reply = waitForReply(command, std::chrono::seconds(5));
    if (!reply) {
        std::fputs("no reply\n", stderr);
        return 1;
    }
    std::printf("%s replied with %d bytes\n", qPrintable(reply->strKey2),
                static_cast<int>(reply->arryDatablock.size()));
    return 0;
}
