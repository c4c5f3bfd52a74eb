// SPDX-License-Identifier: MIT
// A host of one USB HID device: opens it by its ids, sends one command, waits for the reply.
//
//   coremanage simulate usb://04b4:1008           # stands in for the device, says what to export
//   umockdev-wrapper usb 04b4 1008                # a real device needs no wrapper
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
        std::fputs("usage: usb VENDOR PRODUCT, four hexadecimal digits each\n", stderr);
        return 2;
    }
    QLoggingCategory::setFilterRules("default.debug=false");

    const std::unique_ptr<ICoreBase> link(CoreFactory::creatCoreObjInstance(ConnUsb));
    if (!link->openUSB(arguments.at(1).toUShort(nullptr, 16),
                       arguments.at(2).toUShort(nullptr, 16))) {
        std::fputs("no such device, or no right to open it: see coremanage devices\n", stderr);
        return 1;
    }
    model_Protocoldata command;
    command.CMD = 0x8b;
    command.DAT1 = 9;
    takeReplies();
    link->sendDatatoDevice(&command); // waits until the kernel has each report

    // A reply takes its time: one report is read every 100 ms, and a block is several.
    const auto reply = waitForReply(command, std::chrono::seconds(5));
    if (!reply) {
        std::fputs("no reply\n", stderr);
        return 1;
    }
    std::printf("the device replied with %d bytes\n",
                static_cast<int>(reply->arryDatablock.size()));
    return 0;
}
