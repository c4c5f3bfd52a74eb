// SPDX-License-Identifier: MIT
#include "capturerecord.h"

#include <gtest/gtest.h>

namespace
{

using Medium = CaptureRecord::Medium;
using What = CaptureRecord::What;

CaptureRecord udpRecord(What what)
{
    CaptureRecord record;
    record.medium = Medium::Udp;
    record.what = what;
    record.link = "udp://192.168.1.20:1000";
    record.device = {QHostAddress(QStringLiteral("192.168.1.20")), 1000};
    record.here = {QHostAddress(QStringLiteral("192.168.1.2")), 5104};
    record.bytes = "<T0000100000000010>";
    return record;
}

void expectSame(const CaptureRecord& record, const CaptureRecord& other)
{
    EXPECT_EQ(record.medium, other.medium);
    EXPECT_EQ(record.what, other.what);
    EXPECT_EQ(record.link, other.link);
    EXPECT_EQ(record.device.address, other.device.address);
    EXPECT_EQ(record.device.port, other.device.port);
    EXPECT_EQ(record.here.address, other.here.address);
    EXPECT_EQ(record.here.port, other.here.port);
    EXPECT_EQ(record.bytes, other.bytes);
}

} // namespace

TEST(CaptureRecord, IsTheseBytes)
{
    EXPECT_EQ(udpRecord(What::Sent).encode().toHex(),
              QByteArray("000c0010636f72656d616e6167652e6c696e6b00" // the dissector's name
                         "00140004c0a80102"                         // from
                         "00150004c0a80114"                         // to
                         "0018000400000003"                         // UDP
                         "00190004000013f0"
                         "001a0004000003e8"
                         "00000000"
                         "01010017") +
                  QByteArray("udp://192.168.1.20:1000<T0000100000000010>").toHex());
}

TEST(CaptureRecord, HasTheSenderFirst)
{
    const QByteArray packet = udpRecord(What::Received).encode();
    EXPECT_TRUE(packet.contains(QByteArray::fromHex("00140004c0a80114"))) << "from the device";
    EXPECT_TRUE(packet.contains(QByteArray::fromHex("00190004000003e8")));
}

TEST(CaptureRecord, IsReadAsItWasWritten)
{
    for (int what = 0; what <= static_cast<int>(What::Reinitialised); ++what) {
        const CaptureRecord record = udpRecord(static_cast<What>(what));
        const auto read = CaptureRecord::decode(record.encode());
        ASSERT_TRUE(read) << what;
        expectSame(*read, record);
    }
    for (const char* link : {"serial:///dev/ttyUSB0", "vela://p", "usb://04b4:1008", "x"}) {
        CaptureRecord record;
        record.link = link;
        record.medium = CaptureRecord::mediumOf(record.link);
        record.what = What::Received;
        record.bytes = QByteArray("\0\xff\n", 3);
        const auto read = CaptureRecord::decode(record.encode());
        ASSERT_TRUE(read) << link;
        expectSame(*read, record);
    }
    CaptureRecord osd = udpRecord(What::Received);
    osd.medium = Medium::Osd;
    osd.device = {QHostAddress(QStringLiteral("fe80::1")), 10001};
    osd.here = {QHostAddress(QStringLiteral("::")), 0};
    const auto read = CaptureRecord::decode(osd.encode());
    ASSERT_TRUE(read);
    expectSame(*read, osd);
}

TEST(CaptureRecord, KnowsTheMediumFromTheScheme)
{
    EXPECT_EQ(CaptureRecord::mediumOf("udp://192.168.1.20"), Medium::Udp);
    EXPECT_EQ(CaptureRecord::mediumOf("Serial:///dev/ttyUSB0"), Medium::Serial);
    EXPECT_EQ(CaptureRecord::mediumOf("vela://ttyS1"), Medium::Vela);
    EXPECT_EQ(CaptureRecord::mediumOf("usb://04b4:1008"), Medium::Usb);
    EXPECT_EQ(CaptureRecord::mediumOf("osd://10.0.0.5"), Medium::Osd);
    for (const char* other : {"", "udp", "tcp://10.0.0.5", "://"}) {
        EXPECT_EQ(CaptureRecord::mediumOf(other), Medium::Other) << other;
    }
}

TEST(CaptureRecord, CutsALongName)
{
    CaptureRecord record = udpRecord(What::Sent);
    record.link = "udp://" + QByteArray(300, 'x');
    const auto read = CaptureRecord::decode(record.encode());
    ASSERT_TRUE(read);
    EXPECT_EQ(read->link, record.link.left(255));
    EXPECT_EQ(read->bytes, record.bytes);
}

TEST(CaptureRecord, RefusesOtherPackets)
{
    const QByteArray packet = udpRecord(What::Sent).encode();
    const auto payload = packet.indexOf("udp://") - 4;
    for (QByteArray::size_type length = 0; length < payload + 4 + 23; ++length) {
        EXPECT_FALSE(CaptureRecord::decode(packet.left(length))) << length;
    }
    EXPECT_TRUE(CaptureRecord::decode(packet.left(payload + 4 + 23))) << "without bytes";
    const auto changed = [&packet](QByteArray::size_type at, char value) {
        QByteArray other = packet;
        other[at] = value;
        return CaptureRecord::decode(other);
    };
    EXPECT_FALSE(changed(4, 'C')) << "another dissector's";
    EXPECT_FALSE(changed(payload, 2)) << "another version";
    EXPECT_FALSE(changed(payload + 1, 6)) << "no medium";
    EXPECT_FALSE(changed(payload + 2, 7)) << "nothing that happens";
    EXPECT_FALSE(changed(2, '\xff')) << "a tag beyond the end";
    EXPECT_FALSE(CaptureRecord::decode(QByteArray(100, '\0')));
    EXPECT_FALSE(CaptureRecord::decode(QByteArray(70000, '\xff')));
}
