// SPDX-License-Identifier: MIT
#include "conformance.h"
#include "core_udp.h"
#include "textframes.h"
#include "udppeer.h"

namespace
{

class UdpLinkUnderTest : public TextFrames
{
public:
    bool open()
    {
        line.setDeviceIP(QStringLiteral("127.0.0.1"));
        line.setPort(peer.port());
        return peer.bound();
    }
    ICoreBase& transport() { return line; }
    void deliver(const QByteArrayList& datagrams)
    {
        for (const QByteArray& datagram : datagrams) {
            peer.send(datagram);
        }
    }
    QByteArray atDevice()
    {
        while (peer.hasDatagram()) {
            received += peer.receive().bytes;
        }
        return received;
    }

    static constexpr int floodSize = 200; // the kernel keeps them until they are read

private:
    UdpPeer peer;
    core_UDP line;
    QByteArray received;
};

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(Udp, LinkConformance, UdpLinkUnderTest);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(StreamLinkConformance);
