// SPDX-License-Identifier: MIT
#pragma once

#include "eventually.h"
#include "netns.h"

#include <QProcess>

/// Another machine at the other end of a cable: a network namespace of its own, whose interface
/// device0 is joined to host0 in this one. For an isolated process. Neither has an address yet.
class NetworkCable
{
public:
    NetworkCable()
    {
        machine.start(QStringLiteral("unshare"),
                      {QStringLiteral("-n"), QStringLiteral("sleep"), QStringLiteral("120")});
        machine.waitForStarted();
        const QByteArray pid = QByteArray::number(machine.processId());
        prefix = "nsenter -t " + pid + " -n ";
        isThere = eventually([&pid] { // the child has left this namespace
                      return netns::run(("test \"$(readlink /proc/" + pid +
                                         "/ns/net)\" != \"$(readlink /proc/self/ns/net)\"")
                                            .constData());
                  }) &&
                  netns::run("ip link add host0 type veth peer name device0") &&
                  netns::run(("ip link set device0 netns " + pid).constData());
    }
    ~NetworkCable()
    {
        netns::run("ip link del host0");
        machine.kill();
        machine.waitForFinished();
    }
    NetworkCable(const NetworkCable&) = delete;
    NetworkCable& operator=(const NetworkCable&) = delete;

    bool exists() const { return isThere; }

    /// What starts a program on the other machine.
    const QByteArray& onDevice() const { return prefix; }

    /// Runs a command there; false if it fails.
    bool runOnDevice(const QByteArray& command) const
    {
        return netns::run((prefix + command).constData());
    }

    /// Sets both ends up, and waits until frames pass.
    bool plugIn() const
    {
        return netns::run("ip link set host0 up") && runOnDevice("ip link set device0 up") &&
               eventually([this] {
                   return netns::run("ip -o link show host0 | grep -q 'state UP'") &&
                          runOnDevice("ip -o link show device0 | grep -q 'state UP'");
               });
    }

private:
    QProcess machine;
    QByteArray prefix;
    bool isThere = false;
};
