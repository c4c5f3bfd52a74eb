// SPDX-License-Identifier: MIT
// A host of one device on a serial line: polls it twice a second, without ever waiting, until the
// device is gone.
//
//   coremanage simulate serial:///tmp/port        # stands in for the device
//   serial /tmp/port
#include "core_serialport.h"
#include "replies.h"
#include "serialport.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 2) {
        std::fputs("usage: serial PORT\n", stderr);
        return 2;
    }
    QLoggingCategory::setFilterRules("default.debug=false");

    Core_SerialPort line;
    if (!openPort(line, arguments.at(1))) {
        return 1;
    }

    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&line] {
        for (const model_Protocoldata& reply : takeReplies().records) {
            std::printf("%s replied\n", qPrintable(reply.strKey2));
            std::fflush(stdout);
        }
        if (!line.port().isOpen()) {
            QCoreApplication::quit();
            return;
        }
        model_Protocoldata command;
        command.CMD = 0x10;
        line.sendDatatoDevice(&command);
    });
    poll.start(std::chrono::milliseconds(500));
    const int code = QCoreApplication::exec();
    std::puts("the device has gone");
    return code;
}
