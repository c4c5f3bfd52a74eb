// SPDX-License-Identifier: MIT
// A host of one device on the second serial line, whose frames are binary: a reply without marks of
// its origin is one whose block was late or damaged.
//
//   coremanage simulate vela:///tmp/port          # stands in for the device
//   secondserial /tmp/port
#include "replies.h"
#include "serialport.h"
#include "vela_core_serialport.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 2) {
        std::fputs("usage: secondserial PORT\n", stderr);
        return 2;
    }
    QLoggingCategory::setFilterRules("default.debug=false");

    Vela_Core_SerialPort line;
    if (!openPort(line, arguments.at(1))) {
        return 1;
    }

    model_Protocoldata command;
    command.aux1 = 0xf11f; // the frame begins with it; HEAD is not sent
    command.CMD = 0x10;
    command.DAT3 = 16;                  // to the simulated device: reply with so many bytes
    command.arryDatablock = "setpoint"; // its length goes into the frame by itself
    takeReplies();
    line.sendDatatoDevice(&command);

    const auto reply = waitForReply(command, std::chrono::seconds(5));
    if (!reply) {
        std::fputs("no reply\n", stderr);
        return 1;
    }
    if (reply->strKey2.isEmpty()) {
        std::fprintf(stderr, "a reply without the %d bytes that it announced\n", reply->aux6);
        return 1;
    }
    std::printf("%s replied with %d bytes\n", qPrintable(reply->strKey2),
                static_cast<int>(reply->arryDatablock.size()));
    return 0;
}
