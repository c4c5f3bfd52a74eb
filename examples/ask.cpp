// SPDX-License-Identifier: MIT
// Asks a device over any link for a reply: ask LINK CMD DAT1. LINK is udp://192.168.1.20:1000,
// serial:///dev/ttyS0, vela:///dev/ttyS0 or usb://04b4:1008 for instance.
#include "corefactory.h"
#include "icorebase.h"
#include "replies.h"
#include "utility_manage.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QMap>

#include <cstdio>
#include <memory>

static std::unique_ptr<ICoreBase> openLink(const QString& address)
{
    const QString scheme = address.section("://", 0, 0), place = address.section("://", 1);
    const QString first = place.section(':', 0, 0), second = place.section(':', 1);
    const QMap<QString, ConnType> types{
        {"udp", ConnUdp}, {"serial", ConnSerial}, {"vela", ConnVelaSerial}, {"usb", ConnUsb}};
    std::unique_ptr<ICoreBase> link(CoreFactory::creatCoreObjInstance(types.value(scheme)));
    bool isOpen = scheme == "udp";
    if (isOpen) {
        link->setDeviceIP(first);
        link->setPort(second.toInt());
    } else if (scheme == "usb") {
        isOpen = link->openUSB(first.toUShort(nullptr, 16), second.toUShort(nullptr, 16));
    } else { // false if the link is no serial line
        isOpen = link->openSerialPort(place, QSerialPort::Baud115200, QSerialPort::OneStop,
                                      QSerialPort::NoParity, QSerialPort::NoFlowControl,
                                      QSerialPort::Data8);
    }
    return isOpen ? std::move(link) : nullptr;
}

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules("default.debug=false"); // QT_LOGGING_RULES overrules it
    Utility_Manage::setLogFile("ask.log", 65536, 1);         // two files of 64 KiB at most
    const auto link = argc == 4 ? openLink(argv[1]) : nullptr;
    if (!link) {
        std::fputs("usage: ask LINK CMD DAT1, with a link that can be opened\n", stderr);
        return 2;
    }
    model_Protocoldata command;
    command.CMD = static_cast<quint8>(QString(argv[2]).toUShort(nullptr, 0));
    command.DAT1 = static_cast<quint8>(QString(argv[3]).toUShort(nullptr, 0));
    for (int tries = 3; tries > 0; --tries) {
        takeReplies(); // what is old is no answer
        link->sendDatatoDevice(&command);
        if (const auto reply = waitForReply(command, std::chrono::seconds(2))) {
            std::printf("reply %s\n", reply->arryDatablock.toHex(' ').constData());
            return 0;
        }
    }
    std::fputs("no reply\n", stderr);
    return 1;
}
