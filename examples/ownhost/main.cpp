// SPDX-License-Identifier: MIT
// A host with its own companion library: one command over UDP, and its reply.
//
//   coremanage simulate udp://127.0.0.1:1000      # stands in for the device
//   ownhost 127.0.0.1 1000
#include "corefactory.h"
#include "icorebase.h"
#include "replies.h" // works with any host

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>
#include <memory>

#include <syslog.h>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    if (argc != 3) {
        std::fputs("usage: ownhost ADDRESS PORT\n", stderr);
        return 2;
    }
    QLoggingCategory::setFilterRules("default.debug=false");
    openlog("ownhost", LOG_PERROR, LOG_USER); // the log, and a copy on standard error

    const std::unique_ptr<ICoreBase> link(CoreFactory::creatCoreObjInstance(ConnUdp));
    link->setDeviceIP(argv[1]);
    link->setPort(QString(argv[2]).toInt());
    model_Protocoldata command;
    command.CMD = 0x10;
    takeReplies();
    link->sendDatatoDevice(&command);
    const auto reply = waitForReply(command, std::chrono::seconds(5));
    if (!reply) {
        std::fputs("no reply\n", stderr);
        return 1;
    }
    std::printf("%s replied\n", qPrintable(reply->strKey2));
    return 0;
}
