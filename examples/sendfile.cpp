// SPDX-License-Identifier: MIT
// Sends a file as blocks, one for each command, and shows how far it is. A block whose reply does
// not come is sent again: it may have arrived, so the device tells a second one by its number.
//
//   coremanage simulate udp://127.0.0.1:1000 --fault drop=2       # loses two replies
//   sendfile 127.0.0.1 1000 FILE
#include "corefactory.h"
#include "icorebase.h"
#include "replies.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>

#include <cstdio>
#include <memory>

namespace
{

constexpr int blockSize = 512; // with its frame of 19 bytes one datagram, which holds 540
constexpr int tries = 4;
constexpr std::chrono::milliseconds timeOut{1000};

model_Protocoldata commandOf(const QByteArray& block, int number)
{
    model_Protocoldata command;
    command.CMD = 0x10;                               // what writes a block, to your device
    command.DAT2 = static_cast<quint8>(number);       // modulo 256: enough to tell neighbours apart
    command.DAT3 = static_cast<quint8>(block.size()); // low byte of the length
    command.DAT4 = static_cast<quint8>(block.size() >> 8);
    command.arryDatablock = block;
    return command;
}

// The links never send anything again: whether and how often is the host's affair.
bool deliver(ICoreBase& link, model_Protocoldata command, int number)
{
    for (int attempt = 1; attempt <= tries; ++attempt) {
        if (attempt > 1) {
            std::printf("block %d: no reply, sent again\n", number);
        }
        takeReplies(); // lowers the flag as well
        link.sendDatatoDevice(&command);
        if (waitForReply(command, timeOut)) {
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 4) {
        std::fputs("usage: sendfile ADDRESS PORT FILE\n", stderr);
        return 2;
    }
    QLoggingCategory::setFilterRules("default.debug=false");
    QFile file(arguments.at(3));
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "%s: %s\n", qPrintable(file.fileName()),
                     qPrintable(file.errorString()));
        return 2;
    }
    const std::unique_ptr<ICoreBase> link(CoreFactory::creatCoreObjInstance(ConnUdp));
    link->setDeviceIP(arguments.at(1));
    link->setPort(arguments.at(2).toInt());

    const QByteArray content = file.readAll();
    for (int number = 0; number * blockSize < content.size(); ++number) {
        const QByteArray block = content.mid(number * blockSize, blockSize);
        if (!deliver(*link, commandOf(block, number), number)) {
            std::fprintf(stderr, "block %d: no reply to %d tries\n", number, tries);
            return 1;
        }
        std::printf("%d of %d bytes\n", static_cast<int>(number * blockSize + block.size()),
                    static_cast<int>(content.size()));
    }
    std::puts("sent");
    return 0;
}
