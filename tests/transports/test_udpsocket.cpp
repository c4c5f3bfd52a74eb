// SPDX-License-Identifier: MIT
#include "udpsocket.h"

#include "linklocal.h"
#include "tests/support/eventually.h"
#include "tests/support/netns.h"
#include "tests/support/processstate.h"
#include "udppeer.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <array>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <string>
#include <thread>

#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr quint16 senderPort = 5104;
constexpr quint16 receiverPort = 6000;

struct Received {
    QByteArray bytes;
    QHostAddress from;
    quint16 port = 0;
};

// What arrives next; nothing has been read if there is no sender.
Received next(UdpSocket& socket)
{
    Received received;
    (void)eventually([&] { return socket.read(received.bytes, received.from, received.port); });
    return received;
}

// As a system without IPv6 answers, for the rest of the process.
bool refuseIpv6()
{
    constexpr auto number = static_cast<__u32>(offsetof(seccomp_data, nr));
    constexpr auto family = static_cast<__u32>(offsetof(seccomp_data, args));
    std::array<sock_filter, 6> rules{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, number),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, family),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{static_cast<unsigned short>(rules.size()), rules.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0 &&
           ::socket(AF_INET6, SOCK_DGRAM, 0) < 0 && errno == EAFNOSUPPORT;
}

// For the rest of the calling thread's life. The C library has no function for it.
bool giveUpPrivileges()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    return syscall(SYS_capset, &header, none.data()) == 0;
}

int receiveBufferOf(int descriptor)
{
    int size = 0;
    socklen_t length = sizeof size;
    getsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &size, &length);
    return size;
}

} // namespace

TEST(UdpSocket, GivesItsDescriptorBack)
{
    const int descriptors = processstate::descriptors();
    {
        UdpSocket socket;
        ASSERT_TRUE(socket.open(receiverPort));
        EXPECT_EQ(processstate::descriptors(), descriptors + 1);
    }
    EXPECT_EQ(processstate::descriptors(), descriptors);
}

TEST(UdpSocket, ReceivesIpv4WhereIpv6SocketsAreMadeWithoutIt)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "the right to make a network namespace is missing";
    }
    if (!netns::run("echo 1 >/proc/sys/net/ipv6/bindv6only")) {
        GTEST_SKIP() << "IPv6 is missing";
    }
    UdpSocket receiver;
    ASSERT_TRUE(receiver.open(receiverPort));
    UdpPeer sender;
    sender.send("bytes", receiverPort);
    EXPECT_EQ(next(receiver).bytes, QByteArray("bytes"));
}

TEST(UdpSocket, HasAsLargeABufferAsItMayHave)
{
    UdpSocket privileged;
    ASSERT_TRUE(privileged.open(receiverPort));
    UdpSocket plain;
    bool isPlain = false;
    std::thread([&] { isPlain = giveUpPrivileges() && plain.open(receiverPort + 1); }).join();
    ASSERT_TRUE(isPlain);
    std::ifstream system("/proc/sys/net/core/rmem_max");
    int limit = 0;
    ASSERT_TRUE(system >> limit);
    constexpr int wanted = 4 * 1024 * 1024; // which the kernel doubles
    EXPECT_EQ(receiveBufferOf(plain.readable()), 2 * qMin(limit, wanted));
    if (netns::isolated()) { // with the privilege
        EXPECT_EQ(receiveBufferOf(privileged.readable()), 2 * wanted);
    }
}

TEST(UdpSocket, AnEmptyDatagramIsSentOnceAndIsOne)
{
    UdpSocket sender;
    UdpSocket receiver;
    ASSERT_TRUE(sender.open(senderPort));
    ASSERT_TRUE(receiver.open(receiverPort));
    errno = EINTR; // of an earlier call
    EXPECT_EQ(sender.write("", 0, QHostAddress::LocalHost, receiverPort), 0);
    EXPECT_EQ(sender.write("x", 1, QHostAddress::LocalHost, receiverPort), 1);
    Received received;
    ASSERT_TRUE(eventually([&] {
        errno = EINTR;
        return receiver.read(received.bytes, received.from, received.port);
    }));
    EXPECT_EQ(received.bytes, QByteArray());
    EXPECT_EQ(next(receiver).bytes, QByteArray("x"));
}

TEST(UdpSocket, ASystemWithoutIpv6SendsAndReceivesIpv4)
{
    if (!refuseIpv6()) {
        GTEST_SKIP() << "system calls cannot be filtered here";
    }
    UdpSocket sender;
    UdpSocket receiver;
    ASSERT_TRUE(sender.open(senderPort));
    ASSERT_TRUE(receiver.open(receiverPort));

    EXPECT_EQ(sender.write("bytes", 5, QHostAddress(QHostAddress::LocalHost), receiverPort), 5);
    const Received received = next(receiver);
    EXPECT_EQ(received.bytes, QByteArray("bytes"));
    EXPECT_EQ(received.from, QHostAddress(QHostAddress::LocalHost));
    EXPECT_EQ(received.from.protocol(), QAbstractSocket::IPv4Protocol);
    EXPECT_EQ(received.port, senderPort);

    UdpPeer second(QStringLiteral("127.0.0.2"));
    EXPECT_EQ(sender.write("bytes", 5, QHostAddress(QStringLiteral("127.0.0.2")), second.port()),
              5);
    EXPECT_EQ(second.receive().bytes, QByteArray("bytes"));

    EXPECT_EQ(sender.write("bytes", 5, QHostAddress(QHostAddress::LocalHostIPv6), receiverPort),
              -1);
}

// A link-local address means nothing without its interface.
TEST(UdpSocket, TheInterfaceOfALinkLocalAddressIsKept)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "needs the right to make a network namespace (root or user namespaces)";
    }
    if (!linklocal::addInterfaces()) {
        GTEST_SKIP() << "IPv6 is missing";
    }
    UdpSocket sender;
    UdpSocket receiver;
    ASSERT_TRUE(sender.open(senderPort));
    ASSERT_TRUE(receiver.open(receiverPort));

    const struct {
        QString scope;
        QString interface;
    } cases[] = {{"host0", "host0"},
                 {"device0", "device0"},
                 {QString::number(if_nametoindex("host0")), "host0"},
                 {QString::number(if_nametoindex("device0")), "device0"}};
    for (const auto& c : cases) {
        QHostAddress address(QStringLiteral("fe80::1"));
        address.setScopeId(c.scope);
        EXPECT_EQ(sender.write("bytes", 5, address, receiverPort), 5) << c.scope.toStdString();
        const Received received = next(receiver);
        EXPECT_EQ(received.bytes, QByteArray("bytes"));
        EXPECT_EQ(received.from.scopeId(), c.interface);
        EXPECT_EQ(received.port, senderPort);
    }
}
