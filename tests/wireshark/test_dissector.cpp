// SPDX-License-Identifier: MIT
#include "capturefile.h"
#include "commandframe.h"
#include "dissection.h"
#include "luatables.h"
#include "netns.h"
#include "osdframe.h"
#include "tests/support/replybytes.h"
#include "tests/tools/toolprocess.h"
#include "tooldecode.h"

#include <gtest/gtest.h>

#include <QFile>

#include <csignal>
#include <random>

namespace
{

using CaptureMedium = CaptureFile::Medium;
using What = CaptureFile::What;
using Format = ToolDecode::Format;

constexpr CaptureFile::End host{1, 5104};
constexpr CaptureFile::End device{2, 1000};
constexpr CaptureFile::End osdHost{1, 40000};
constexpr CaptureFile::End osdEndpoint{2, 10001};

/// A frame that a capture holds.
struct Written {
    QByteArray frame; ///< with its block
    Format format;
    bool isSent; ///< by the host
};

/// The field of the dissector for a name of decode's JSON.
QString shownName(const QString& name, const Written& written)
{
    if (name == QStringLiteral("aux2") && written.isSent) {
        return QStringLiteral("aux1"); // decode reads replies
    }
    if (name == QStringLiteral("chksum") && written.format == Format::Text) {
        return QStringLiteral("checksum.right"); // of a text frame the tool says what is right
    }
    return QString(name).replace('_', '.');
}

bool isShownValid(const ShownFields& shown)
{
    for (const char* what : {"checksum", "digits", "ending", "block.length"}) {
        if (shown.contains(QString("expert.%1").arg(what))) {
            return false;
        }
    }
    return true;
}

/// Whether each field of decode's JSON is shown with its value.
::testing::AssertionResult isSame(const ShownFields& shown, const QJsonObject& decoded,
                                  const Written& written)
{
    const auto differs = [&](const QString& name, const QString& has) {
        return ::testing::AssertionFailure()
               << name.toStdString() << " is " << has.toStdString() << " instead of "
               << decoded[name].toVariant().toString().toStdString() << " in "
               << written.frame.left(40).toHex(' ').constData();
    };
    for (const QString& name : decoded.keys()) {
        const QJsonValue value = decoded[name];
        const QString has = shown.value(shownName(name, written));
        if (name == QStringLiteral("valid")) {
            if (isShownValid(shown) != value.toBool()) {
                return differs(name, QStringList(shown.keys()).join(' '));
            }
        } else if (name == QStringLiteral("aux1")) {
            continue; // of the record, not of the frame
        } else if (name == QStringLiteral("block_length")) {
            if (has.toInt() != value.toInt()) { // none is shown without a block
                return differs(name, has);
            }
        } else if (value.isDouble()) {
            if (has.isEmpty() || has.toInt(nullptr, 0) != value.toInt()) {
                return differs(name, has);
            }
        } else if (QString(has).remove(':') != value.toString()) {
            return differs(name, has);
        }
    }
    return ::testing::AssertionSuccess();
}

class Dissector : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!hasTshark()) {
            GTEST_SKIP() << "tshark is missing";
        }
    }

    /// Every frame that decode reads is shown, in order, and nothing else.
    void expectSame(const Dissection& dissection, const std::vector<Written>& written)
    {
        EXPECT_TRUE(dissection.trouble.isEmpty()) << dissection.trouble.toStdString();
        const std::vector<ShownFields> frames = dissection.frames();
        ToolDecode decode;
        std::size_t next = 0;
        for (const Written& one : written) {
            const QJsonObject decoded = decode(one.frame, one.format);
            if (decoded.isEmpty()) {
                continue;
            }
            ASSERT_LT(next, frames.size());
            ASSERT_TRUE(isSame(frames[next], decoded, one)) << "frame " << next;
            ++next;
        }
        EXPECT_EQ(next, frames.size());
    }
};

/// Random frames, the same in each run.
class Frames
{
public:
    explicit Frames(unsigned seed) : engine(seed) {}

    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(engine); }
    bool chance(int percent) { return below(100) < percent; }

    QByteArray bytes(int length)
    {
        QByteArray made(length, '\0');
        for (char& byte : made) {
            byte = static_cast<char>(below(256));
        }
        return made;
    }

    model_Protocoldata record()
    {
        static constexpr int codes[][2] = {{0x79, 0x0c}, {0x79, 0x09}, {0x79, 0x01}, {0xf1, 0x40},
                                           {0xf1, 0x02}, {0x8e, 0x27}, {0x8b, 0x05}, {0x8b, 0x09},
                                           {0x77, 0x23}, {0x69, 0x09}, {0x9a, 0xa2}, {0x10, 0x02}};
        model_Protocoldata made;
        for (quint8* field :
             {&made.HEAD, &made.ADDR, &made.CMD, &made.DAT1, &made.DAT2, &made.DAT3, &made.aux3}) {
            *field = static_cast<quint8>(below(256));
        }
        if (chance(60)) {
            const auto& code = codes[below(12)];
            made.CMD = static_cast<quint8>(code[0]);
            made.DAT1 = static_cast<quint8>(code[1]);
        }
        made.DAT4 = static_cast<quint8>(chance(10));
        for (quint16* field : {&made.aux1, &made.aux4, &made.aux5}) {
            *field = static_cast<quint16>(below(65536));
        }
        return made;
    }

    QByteArray textReply(const model_Protocoldata& record)
    {
        QByteArray frame = commandframe::encodeText(record).left(commandframe::textLength);
        frame[1] = commandframe::replyMark;
        return chance(20) ? frame.left(2) + frame.mid(2, 16).toUpper() + frame.mid(18) : frame;
    }

    /// Another byte of \a frame is there between \a first and \a last; now and then two that are
    /// one character, which moves the digits behind it.
    void damage(QByteArray& frame, int first, int last)
    {
        const int at = first + below(last - first);
        if (frame.startsWith('<') && at >= 2 && at < last - 2 && chance(20)) {
            frame.replace(at, 2, "\xc3\xa9");
            return;
        }
        const char before = frame.at(at);
        do {
            frame[at] = chance(50) ? "0123456789abcdef <>g"[below(20)] : bytes(1).at(0);
        } while (frame.at(at) == before);
    }

    std::mt19937 engine;
};

std::vector<Written> golden(const QByteArray& kind)
{
    QFile file(QStringLiteral(GOLDEN_FRAMES));
    file.open(QIODevice::ReadOnly);
    std::vector<Written> frames;
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QList<QByteArray> words = line.split(' ');
        if (words.front() == kind) {
            frames.push_back({QByteArray::fromHex(words.back()),
                              kind == "text" ? Format::Text : Format::Binary, true});
        }
    }
    return frames;
}

} // namespace

TEST_F(Dissector, GoldenTextFrames)
{
    const std::vector<Written> frames = golden("text");
    ASSERT_EQ(frames.size(), 86U);
    CaptureFile overUdp(CaptureFile::Content::Internet);
    CaptureFile captured(CaptureFile::Content::Pdus);
    for (const Written& one : frames) {
        overUdp.udp(host, device, one.frame);
        captured.link(CaptureMedium::Udp, What::Sent, QStringLiteral("udp://10.0.0.2"), one.frame);
    }
    expectSame(Dissection(overUdp.content()), frames);
    expectSame(Dissection(captured.content()), frames);
}

TEST_F(Dissector, GoldenBinaryFrames)
{
    const std::vector<Written> frames = golden("binary");
    ASSERT_EQ(frames.size(), 84U);
    CaptureFile captured(CaptureFile::Content::Pdus);
    for (const Written& one : frames) {
        captured.link(CaptureMedium::Vela, What::Sent, QStringLiteral("vela:///dev/ttyS0"),
                      one.frame);
    }
    expectSame(Dissection(captured.content()), frames);
}

// Commands with their blocks, some in several datagrams; replies, their blocks in datagrams of
// their own; one in five is damaged.
TEST_F(Dissector, RandomDatagrams)
{
    Frames frames(1);
    CaptureFile overUdp(CaptureFile::Content::Internet);
    CaptureFile captured(CaptureFile::Content::Pdus);
    const auto put = [&](bool isSent, const QByteArray& bytes) {
        isSent ? overUdp.udp(host, device, bytes) : overUdp.udp(device, host, bytes);
        captured.link(CaptureMedium::Udp, isSent ? What::Sent : What::Received,
                      QStringLiteral("udp://10.0.0.2"), bytes);
    };
    std::vector<Written> written;
    put(true, commandframe::encodeText({}));
    written.push_back({commandframe::encodeText({}), Format::Text, true});
    bool isWaiting = false; // a reply, for a block: anything that is no reply is taken for it
    for (int i = 0; i < 3000; ++i) {
        model_Protocoldata record = frames.record();
        const bool isSent = frames.chance(50);
        if (isSent && frames.chance(50)) {
            const int length = frames.chance(10) ? frames.below(3000) : frames.below(200) + 1;
            record.arryDatablock = frames.bytes(length);
            record.DAT3 = static_cast<quint8>(length);
            record.DAT4 = static_cast<quint8>(length >> 8);
        }
        QByteArray frame = isSent ? commandframe::encodeText(record) : frames.textReply(record);
        const bool isDamaged = frames.chance(20);
        if (isDamaged) {
            frame.truncate(commandframe::textLength);
            frames.damage(frame, isSent || isWaiting ? 2 : 0, static_cast<int>(frame.size()));
        }
        for (QByteArray::size_type at = 0; at < frame.size(); at += 540) {
            put(isSent, frame.mid(at, 540));
        }
        model_Protocoldata read;
        const bool isReply =
            !isSent && frame.startsWith("<F") && commandframe::decodeText(frame, read);
        const replykinds::Kind kind = replykinds::kindOf(read);
        const int announced = replykinds::announcedLength(read);
        if (isReply && kind.onUdp != replykinds::Block::None &&
            kind.onUdp != replykinds::Block::Immediate) {
            const int fixed = replykinds::fixedLength(kind.onUdp);
            const QByteArray block = frames.bytes(fixed > 0 ? fixed : announced);
            isWaiting = block.isEmpty() || frames.chance(10);
            if (!isWaiting) {
                put(false, block);
                frame += block;
            }
        } else if (!isSent && !isReply) {
            isWaiting = false;
        }
        written.push_back({frame, Format::Text, isSent});
    }
    expectSame(Dissection(overUdp.content()), written);
    expectSame(Dissection(captured.content()), written);
}

namespace
{

/// The bytes of one direction of a stream, and what they hold.
struct Stream {
    QByteArray bytes;
    std::vector<Written> written;
};

// Blocks with a right checksum at the end, but for a few.
QByteArray replyBlock(Frames& frames, int length)
{
    QByteArray block = frames.bytes(length);
    if (length > 0 && frames.chance(90)) {
        block[length - 1] = replybytes::sumOf(block.left(length - 1));
    }
    return block;
}

// Nothing that begins a frame.
QByteArray noise(Frames& frames)
{
    return frames.bytes(frames.below(40)).replace('<', 'x').replace('\xf1', 'x');
}

Stream textReplies(Frames& frames, int count, bool isPadded)
{
    Stream stream;
    for (int i = 0; i < count; ++i) {
        QByteArray frame = frames.textReply(frames.record());
        if (frames.chance(20)) {
            frames.damage(frame, 0, static_cast<int>(frame.size()));
        }
        const bool isMarked = frame.startsWith("<F") && frame.endsWith('>');
        model_Protocoldata read;
        if (isMarked && commandframe::decodeText(frame, read)) {
            const replykinds::Kind kind = replykinds::kindOf(read);
            const int fixed = replykinds::fixedLength(kind.onStream);
            const bool isAnnounced = kind.onStream == replykinds::Block::Announced;
            frame += replyBlock(frames, isAnnounced ? replykinds::announcedLength(read) : fixed);
        }
        stream.bytes += frame;
        if (isMarked) {
            stream.written.push_back({frame, Format::Text, false});
        }
        if (isPadded) {
            stream.bytes.append((64 - stream.bytes.size() % 64) % 64, '\0');
        } else if (frames.chance(30)) {
            stream.bytes += noise(frames);
        }
    }
    return stream;
}

Stream binaryReplies(Frames& frames, int count)
{
    Stream stream;
    for (int i = 0; i < count; ++i) {
        model_Protocoldata record = frames.record();
        record.aux1 = 0xf11f;
        record.arryDatablock = frames.bytes(frames.chance(50) ? 0 : frames.below(300));
        QByteArray frame = commandframe::encodeBinary(record);
        if (frames.chance(20)) {
            frame.truncate(commandframe::binaryLength);
            frames.damage(frame, 0, static_cast<int>(frame.size()));
        }
        stream.bytes += frame;
        if (frame.startsWith("\xf1\x1f")) {
            stream.written.push_back({frame, Format::Binary, false});
        }
        if (frames.chance(30)) {
            stream.bytes += noise(frames);
        }
    }
    return stream;
}

Stream commands(Frames& frames, int count, Format format)
{
    Stream stream;
    for (int i = 0; i < count; ++i) {
        model_Protocoldata record = frames.record();
        if (frames.chance(50)) {
            record.arryDatablock = frames.bytes(frames.below(400));
            record.DAT3 = static_cast<quint8>(record.arryDatablock.size());
            record.DAT4 = static_cast<quint8>(record.arryDatablock.size() >> 8);
        } // else a text command announces a block and sends none
        const QByteArray frame = format == Format::Binary ? commandframe::encodeBinary(record)
                                                          : commandframe::encodeText(record);
        stream.bytes += frame;
        stream.written.push_back({frame, format, true});
    }
    return stream;
}

} // namespace

TEST_F(Dissector, RandomStreams)
{
    Frames frames(2);
    CaptureFile captured(CaptureFile::Content::Pdus);
    std::vector<Written> written;
    const auto put = [&](CaptureMedium medium, const QString& name, const Stream& stream) {
        const bool isSent = stream.written.front().isSent;
        for (int at = 0, size = 0; at < stream.bytes.size(); at += size) {
            size = 1 + frames.below(frames.chance(10) ? 1000 : 60); // split, and joined
            captured.link(medium, isSent ? What::Sent : What::Received, name,
                          stream.bytes.mid(at, size));
        }
        written.insert(written.end(), stream.written.begin(), stream.written.end());
    };
    put(CaptureMedium::Serial, QStringLiteral("serial:///dev/ttyS0"),
        textReplies(frames, 1500, false));
    put(CaptureMedium::Serial, QStringLiteral("serial:///dev/ttyS0"),
        commands(frames, 700, Format::Text));
    put(CaptureMedium::Vela, QStringLiteral("vela:///dev/ttyS1"), binaryReplies(frames, 1500));
    put(CaptureMedium::Vela, QStringLiteral("vela:///dev/ttyS1"),
        commands(frames, 700, Format::Binary));
    expectSame(Dissection(captured.content()), written);
}

// In reports, the last of a frame filled up with zeros; the block of an update begins in a report
// of its own.
TEST_F(Dissector, RandomReports)
{
    Frames frames(3);
    CaptureFile captured(CaptureFile::Content::Pdus);
    CaptureFile transfers(CaptureFile::Content::Usb);
    transfers.usbDescriptors(0x04b4, 0x1008);
    std::vector<Written> written;
    const auto put = [&](bool isSent, QByteArray report) {
        report.append(64 - report.size(), '\0');
        transfers.usbReport(!isSent, report);
        if (isSent && frames.chance(50)) {
            report.prepend('\0'); // its number
        }
        captured.link(CaptureMedium::Usb, isSent ? What::Sent : What::Received,
                      QStringLiteral("usb://04b4:1008"), report);
    };
    const Stream replies = textReplies(frames, 500, true);
    for (int at = 0; at < replies.bytes.size(); at += 64) {
        put(false, replies.bytes.mid(at, 64));
    }
    written = replies.written;
    for (int i = 0; i < 500; ++i) {
        model_Protocoldata record = frames.record();
        record.arryDatablock = frames.bytes(frames.below(300));
        record.DAT3 = static_cast<quint8>(record.arryDatablock.size());
        record.DAT4 = static_cast<quint8>(record.arryDatablock.size() >> 8);
        const QByteArray frame = commandframe::encodeText(record);
        const bool isUpdate = record.CMD == 0x9a && record.DAT1 == 0xa2;
        int size = isUpdate && frame.size() >= 64 ? commandframe::textLength : 64;
        for (int at = 0; at < frame.size(); at += size, size = at == 0 ? size : 64) {
            put(true, frame.mid(at, size));
            if (at == 0 && size < 64) {
                at = size - 64;
                size = 64;
            }
        }
        written.push_back({frame, Format::Text, true});
    }
    expectSame(Dissection(captured.content()), written);
    expectSame(Dissection(transfers.content()), written);
}

TEST_F(Dissector, RandomOsdFrames)
{
    Frames frames(4);
    CaptureFile overTcp(CaptureFile::Content::Internet);
    CaptureFile captured(CaptureFile::Content::Pdus);
    const QString name = QStringLiteral("osd://10.0.0.2");
    std::vector<Written> written;
    int sent = 1;
    for (int i = 0; i < 1000; ++i) {
        const QByteArray frame =
            frames.bytes(8 + frames.below(frames.chance(50) ? 60 : 1400) + 1460 * frames.below(3));
        for (int at = 0; at < frame.size(); at += 1460) {
            overTcp.tcp(osdHost, osdEndpoint, sent, frame.mid(at, 1460));
            sent += static_cast<int>(frame.mid(at, 1460).size());
        }
        captured.link(CaptureMedium::Osd, What::Sent, name, frame);
        written.push_back({frame, Format::Osd, true});
    }
    QByteArray acknowledgements;
    for (int i = 0; i < 1000; ++i) {
        acknowledgements += noise(frames).replace('O', 'x');
        const QByteArray frame = "OK" + frames.bytes(1);
        acknowledgements += frame;
        written.push_back({frame, Format::Osd, false});
    }
    for (int at = 0, size = 0; at < acknowledgements.size(); at += size) {
        size = 1 + frames.below(20);
        const QByteArray piece = acknowledgements.mid(at, size);
        overTcp.tcp(osdEndpoint, osdHost, 1 + at, piece);
        captured.link(CaptureMedium::Osd, What::Received, name, piece);
    }
    expectSame(Dissection(overTcp.content()), written);
    expectSame(Dissection(captured.content()), written);
}

namespace
{

QByteArray textCommand(int code, int subCode)
{
    QByteArray frame = replybytes::text(code, subCode);
    frame[1] = commandframe::commandMark;
    return frame;
}

QByteArray withWrongChecksum(QByteArray frame)
{
    frame[17] = frame.at(17) == '0' ? '1' : '0';
    return frame;
}

/// Whether the items of a packet (numbered from 1) have a field, and with this value.
::testing::AssertionResult shows(const Dissection& dissection, int packet, const char* field,
                                 const char* value = nullptr)
{
    QStringList seen;
    for (const ShownFields& item :
         dissection.packets.at(static_cast<std::size_t>(packet - 1)).items) {
        for (auto shown = item.begin(); shown != item.end(); ++shown) {
            if (shown.key() == QLatin1String(field) &&
                (value == nullptr || shown.value() == QLatin1String(value))) {
                return ::testing::AssertionSuccess();
            }
            seen << shown.key() + '=' + shown.value();
        }
    }
    return ::testing::AssertionFailure()
           << "packet " << packet << " shows " << seen.join(' ').toStdString();
}

} // namespace

TEST_F(Dissector, LinksRepliesToTheirCommands)
{
    CaptureFile capture(CaptureFile::Content::Internet);
    capture.udp(host, device, textCommand(0x10, 1));      // 1: answered in 3
    capture.udp(host, device, textCommand(0x20, 1));      // 2: never answered
    capture.udp(device, host, replybytes::text(0x10, 1)); // 3
    capture.udp(device, host, replybytes::text(0x10, 2)); // 4: the same command's second
    capture.udp(device, host, replybytes::text(0x30, 1)); // 5: nobody asked
    capture.wait(1500);
    capture.udp({3, 1000}, host, replybytes::text(0x20, 1)); // 6: from another device
    capture.wait(1000);
    capture.udp(device, host, replybytes::text(0x20, 1));     // 7: too late
    capture.udp(host, {255, 1000}, textCommand(0x40, 1));     // 8
    capture.udp(host, device, textCommand(0x50, 1));          // 9, and its blocks
    capture.udp(device, host, replybytes::text(0x8b, 5));     // 10: its block is in 12
    capture.udp(device, host, replybytes::text(0x10, 2));     // 11: does not come between
    capture.udp(device, host, replybytes::block(150));        // 12: five bytes too many
    capture.udp(device, host, replybytes::text(0x8b, 5));     // 13: its block is lost
    capture.udp(device, host, replybytes::text(0x79, 1, 20)); // 14: its block is too short
    capture.udp(device, host, replybytes::block(19));         // 15
    capture.udp(device, host, replybytes::block(30));         // 16: of nothing
    capture.udp(device, host, withWrongChecksum(replybytes::text(0x10, 1))); // 17
    const Dissection seen(capture.content());
    ASSERT_TRUE(seen.trouble.isEmpty()) << seen.trouble.toStdString();
    ASSERT_EQ(seen.packets.size(), 17U);
    EXPECT_TRUE(shows(seen, 1, "response.in", "3"));
    EXPECT_TRUE(shows(seen, 3, "response.to", "1"));
    EXPECT_TRUE(shows(seen, 3, "response.time", "0.002000000"));
    EXPECT_TRUE(shows(seen, 4, "response.to", "1"));
    EXPECT_TRUE(shows(seen, 2, "expert.unanswered"));
    for (const int packet : {5, 6, 7}) {
        EXPECT_FALSE(shows(seen, packet, "response.to")) << packet;
    }
    EXPECT_TRUE(shows(seen, 10, "block.in", "12"));
    EXPECT_TRUE(shows(seen, 12, "block.of", "10"));
    EXPECT_TRUE(shows(seen, 12, "block.length", "145"));
    EXPECT_TRUE(shows(seen, 12, "skipped"));
    EXPECT_TRUE(shows(seen, 12, "expert.skipped"));
    EXPECT_TRUE(shows(seen, 13, "expert.block.lost"));
    EXPECT_FALSE(shows(seen, 10, "expert.block.lost"));
    EXPECT_TRUE(shows(seen, 15, "expert.block.length"));
    EXPECT_TRUE(shows(seen, 16, "expert.block.unexpected"));
    EXPECT_TRUE(shows(seen, 17, "expert.checksum"));
    EXPECT_TRUE(shows(seen, 17, "checksum.status", "0"));
    EXPECT_TRUE(shows(seen, 3, "checksum.status", "1"));
}

// A parser waits 600 ms for a block, and takes what comes later for noise.
TEST_F(Dissector, GivesUpABlockOfAStream)
{
    const QString name = QStringLiteral("serial:///dev/ttyUSB0");
    CaptureFile capture(CaptureFile::Content::Pdus);
    const auto receive = [&](const QByteArray& bytes) {
        capture.link(CaptureMedium::Serial, What::Received, name, bytes);
    };
    const QByteArray block = replybytes::block(145).replace('<', 'x');
    capture.link(CaptureMedium::Serial, What::Opened, name, {}); // 1
    receive("noise" + replybytes::text(0x8b, 5));                // 2
    receive(block.left(100));                                    // 3
    capture.wait(700);
    receive(block.mid(100) + replybytes::text(0x8b, 5));                            // 4
    receive(block.left(144) + "x");                                                 // 5
    capture.link(CaptureMedium::Serial, What::Closed, name, {});                    // 6
    capture.link(CaptureMedium::Serial, What::NotSent, name, textCommand(0x10, 1)); // 7
    receive(replybytes::text(0x10, 1));                                             // 8
    const Dissection seen(capture.content());
    ASSERT_TRUE(seen.trouble.isEmpty()) << seen.trouble.toStdString();
    ASSERT_EQ(seen.packets.size(), 8U);
    EXPECT_TRUE(shows(seen, 2, "skipped", "6e:6f:69:73:65"));
    EXPECT_TRUE(shows(seen, 2, "expert.block.lost"));
    EXPECT_TRUE(shows(seen, 3, "part"));
    EXPECT_TRUE(shows(seen, 4, "block.of", "2"));
    EXPECT_TRUE(shows(seen, 4, "expert.block.lost"));
    EXPECT_TRUE(shows(seen, 4, "skipped"));
    EXPECT_TRUE(shows(seen, 4, "block.in", "5"));
    EXPECT_TRUE(shows(seen, 5, "block.checksum.status", "0"));
    EXPECT_TRUE(shows(seen, 5, "expert.block.checksum"));
    EXPECT_TRUE(shows(seen, 7, "expert.failed"));
    EXPECT_FALSE(shows(seen, 8, "response.to"));
}

TEST_F(Dissector, ShowsWhatABlockIsMadeOf)
{
    const QString name = QStringLiteral("vela:///dev/ttyUSB0");
    model_Protocoldata record;
    record.arryDatablock = replybytes::block(40);
    const QByteArray bytes = "x" + commandframe::encodeBinary(record);
    CaptureFile capture(CaptureFile::Content::Pdus);
    capture.link(CaptureMedium::Vela, What::Sent, name, bytes.left(27));    // 1
    capture.link(CaptureMedium::Vela, What::Sent, name, bytes.mid(27, 10)); // 2
    capture.link(CaptureMedium::Vela, What::Sent, name, bytes.mid(37));     // 3
    const Dissection seen(capture.content());
    ASSERT_TRUE(seen.trouble.isEmpty()) << seen.trouble.toStdString();
    EXPECT_TRUE(shows(seen, 1, "skipped", "78"));
    EXPECT_TRUE(shows(seen, 1, "aux6", "0x0028"));
    EXPECT_TRUE(shows(seen, 1, "block.in", "3"));
    EXPECT_TRUE(shows(seen, 2, "part", bytes.mid(27, 10).toHex(':')));
    EXPECT_TRUE(shows(seen, 3, "block", record.arryDatablock.toHex(':')));
}

// What the system quotes in its message that nobody listens was not sent twice.
TEST_F(Dissector, TakesNoQuotedCommandForASentOne)
{
    CaptureFile capture(CaptureFile::Content::Internet);
    capture.udp(host, device, textCommand(0x10, 1));
    capture.unreachable(device, host, textCommand(0x10, 1));
    capture.udp(host, device, textCommand(0x10, 1));
    capture.udp(device, host, replybytes::text(0x10, 1));
    capture.udp(device, host, replybytes::text(0x10, 1));
    const Dissection seen(capture.content());
    ASSERT_TRUE(seen.trouble.isEmpty()) << seen.trouble.toStdString();
    EXPECT_TRUE(shows(seen, 4, "response.to", "1"));
    EXPECT_TRUE(shows(seen, 5, "response.to", "3"));
}

// Every pair of codes has the kind that the library gives it, on both sorts of link.
TEST_F(Dissector, HasTheKindsOfTheLibrary)
{
    CaptureFile capture(CaptureFile::Content::Pdus);
    std::vector<replykinds::Kind> kinds;
    for (int code = 0; code < 256; ++code) {
        for (const int subCode : {0x00, 0x05, 0x09, 0x0c, 0x23, 0x27, 0x40, 0x41}) {
            const QByteArray reply = replybytes::text(code, subCode, 0x11, 0x01);
            model_Protocoldata read;
            commandframe::decodeText(reply, read);
            kinds.push_back(replykinds::kindOf(read));
            const QString name = QString::number(kinds.size()); // a fresh link for each
            capture.link(CaptureMedium::Udp, What::Received, "udp " + name, reply);
            capture.link(CaptureMedium::Serial, What::Received, "serial " + name, reply);
        }
    }
    const auto expected = [](replykinds::Block block) {
        using replykinds::Block;
        const int fixed = replykinds::fixedLength(block);
        return block == Block::None || block == Block::Immediate ? 0 : fixed > 0 ? fixed : 0x111;
    };
    const Dissection seen(capture.content());
    ASSERT_EQ(seen.packets.size(), 2 * kinds.size());
    const QString field = QStringLiteral("block.announced");
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        ASSERT_EQ(seen.packets[2 * i].items.at(0).value(field).toInt(), expected(kinds[i].onUdp));
        ASSERT_EQ(seen.packets[2 * i + 1].items.at(0).value(field).toInt(),
                  expected(kinds[i].onStream));
    }
}

TEST(DissectorTables, FollowAChangedKind)
{
    const auto changed = [](const model_Protocoldata& reply) {
        return reply.CMD == 0x42 && reply.DAT1 == 0x07
                   ? replykinds::Kind{replykinds::Block::FixedB, replykinds::Block::Announced, true}
                   : replykinds::kindOf(reply);
    };
    const std::string line = "[0x42] = {others = {\"None\", \"None\", false}, "
                             "[0x07] = {\"FixedB\", \"Announced\", true}}";
    EXPECT_NE(luatables::kinds(changed).find(line), std::string::npos);
    EXPECT_EQ(luatables::kinds().find("[0x42]"), std::string::npos);
    EXPECT_NE(luatables::library().find(luatables::kinds()), std::string::npos);
}

TEST_F(Dissector, TakesOtherPortsByPreference)
{
    CaptureFile capture(CaptureFile::Content::Internet);
    capture.udp({1, 7001}, {2, 7000}, textCommand(0x10, 1));
    capture.tcp({1, 7001}, {2, 7002}, 1, osdframe::encode({}));
    capture.udp({1, 3005}, {2, 3005}, textCommand(0x10, 1));
    const Dissection without(capture.content());
    EXPECT_TRUE(without.packets.at(0).items.empty());
    EXPECT_TRUE(without.packets.at(1).items.empty());
    EXPECT_TRUE(shows(without, 3, "cmd", "0x10"));
    const Dissection with(capture.content(), {"-o", "coremanage.udp_ports:7000-7001", "-o",
                                              "coremanage.tcp_ports:7002"});
    EXPECT_TRUE(shows(with, 1, "cmd", "0x10"));
    EXPECT_TRUE(shows(with, 2, "ch2", "0x00"));
    EXPECT_TRUE(with.packets.at(2).items.empty());
    EXPECT_TRUE(
        shows(Dissection(capture.content(), {"-d", "udp.port==7000,coremanage"}), 1, "cmd"));
}

// Whatever comes: it is skipped, waits for more, or is a block.
TEST_F(Dissector, TakesAnyBytes)
{
    Frames frames(5);
    CaptureFile captured(CaptureFile::Content::Pdus);
    CaptureFile internet(CaptureFile::Content::Internet);
    CaptureFile transfers(CaptureFile::Content::Usb);
    transfers.usbDescriptors(0x04b4, 0x100a);
    const auto anyBytes = [&frames] {
        QByteArray bytes = frames.bytes(frames.below(80));
        static const QByteArray marks[] = {"<F", "<T", "<", "OK", "O", "\xf1\x1f", "\xf1", ">"};
        for (int i = frames.below(4); i > 0; --i) {
            bytes.insert(frames.below(static_cast<int>(bytes.size()) + 1), marks[frames.below(8)]);
        }
        return bytes;
    };
    for (int i = 0; i < 1500; ++i) {
        captured.pdu(QByteArray(frames.chance(50) ? "\1\2" : "") + frames.bytes(frames.below(12)));
        captured.link(static_cast<CaptureMedium>(1 + frames.below(6)),
                      static_cast<What>(frames.below(8)), QString(frames.below(3), QChar('x')),
                      anyBytes());
        const bool isSent = frames.chance(50);
        internet.udp(isSent ? host : device, isSent ? device : host, anyBytes());
        internet.unreachable(device, host, anyBytes());
        transfers.usbReport(!isSent, anyBytes());
    }
    for (const CaptureFile* capture : {&captured, &internet, &transfers}) {
        const Dissection seen(capture->content());
        EXPECT_TRUE(seen.trouble.isEmpty()) << seen.trouble.toStdString();
        EXPECT_EQ(static_cast<int>(seen.packets.size()), capture->count());
    }
}

// A capture that begins when the device has long been plugged in.
TEST_F(Dissector, TakesADeviceThatItIsTold)
{
    CaptureFile capture(CaptureFile::Content::Usb);
    capture.usbReport(true, replybytes::text(0x10, 1));
    EXPECT_TRUE(Dissection(capture.content()).packets.at(0).items.empty());
    const Dissection told(capture.content(), {"-d", "usb.device==0x10005,coremanage.usb"});
    EXPECT_TRUE(shows(told, 1, "cmd", "0x10"));
}

TEST_F(Dissector, ShortBlocksByPreference)
{
    CaptureFile capture(CaptureFile::Content::Pdus);
    for (const CaptureMedium medium : {CaptureMedium::Serial, CaptureMedium::Usb}) {
        capture.link(medium, What::Received, QString::number(static_cast<int>(medium)),
                     replybytes::text(0x69, 9) + replybytes::block(33));
    }
    const Dissection with(capture.content(), {"-o", "coremanage.short_blocks:TRUE"});
    EXPECT_TRUE(shows(with, 1, "block.length", "33"));
    EXPECT_TRUE(shows(with, 1, "block.checksum.status", "1"));
    EXPECT_TRUE(shows(with, 2, "block.announced", "129"));
    EXPECT_TRUE(shows(Dissection(capture.content()), 1, "block.announced", "129"));
}

TEST_F(Dissector, ProfileColoursAndColumns)
{
    CaptureFile capture(CaptureFile::Content::Internet);
    capture.udp(host, device, textCommand(0x10, 1));
    capture.udp(device, host, replybytes::text(0x10, 1));
    capture.udp(device, host, withWrongChecksum(replybytes::text(0x10, 1)));
    capture.udp(device, host, "x");
    capture.udp(host, device, textCommand(0x9a, 0xa0));
    QString trouble;
    const QByteArray rules = runTshark(
        capture.content(),
        {"-C", "Core_Manage", "--color", "-T", "fields", "-e", "frame.coloring_rule.name"},
        trouble);
    EXPECT_EQ(rules, "Core_Manage: command\nCore_Manage: reply\nCore_Manage: wrong checksum\n"
                     "Core_Manage: block lost or unexpected\nCore_Manage: no reply\n");
    const QByteArray columns = runTshark(capture.content(), {"-C", "Core_Manage"}, trouble);
    EXPECT_TRUE(columns.contains("reply 0x10 0x01 0.001000000")) << columns.constData();
    EXPECT_TRUE(trouble.isEmpty()) << trouble.toStdString();
}

// What really passes, while the demo shows every link: nothing of it is malformed.
TEST_F(Dissector, ReadsACaptureOfTheDemo)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "the right to make a network namespace is missing";
    }
    const QTemporaryDir directory;
    const QString file = directory.filePath(QStringLiteral("demo.pcap"));
    QProcess capture;
    capture.setProcessChannelMode(QProcess::MergedChannels);
    capture.start(QStringLiteral("dumpcap"), {"-i", "lo", "-P", "-w", file});
    ASSERT_TRUE(capture.waitForStarted());
    QByteArray said;
    while (!said.contains("File: ") && capture.waitForReadyRead(60000)) {
        said += capture.readAll();
    }
    ASSERT_TRUE(said.contains("File: ")) << said.constData();
    const ToolRun demo({QStringLiteral("demo")});
    EXPECT_EQ(demo.code, 0) << demo.output.constData();
    ::kill(static_cast<pid_t>(capture.processId()), SIGINT);
    ASSERT_TRUE(capture.waitForFinished(60000));
    QFile captured(file);
    ASSERT_TRUE(captured.open(QIODevice::ReadOnly));
    const Dissection seen(captured.readAll(), {"-o", "coremanage.tcp_ports:1024-65535"});
    EXPECT_TRUE(seen.trouble.isEmpty()) << seen.trouble.toStdString();
    int answered = 0;
    int acknowledged = 0;
    int blocks = 0;
    for (const ShownFields& frame : seen.frames()) {
        answered +=
            frame.contains(QStringLiteral("response.to")) && frame.contains(QStringLiteral("cmd"));
        acknowledged += frame.contains(QStringLiteral("status"));
        blocks += frame.value(QStringLiteral("block.length")) == QStringLiteral("145");
    }
    EXPECT_GE(answered, 200); // its burst
    EXPECT_GE(acknowledged, 6);
    EXPECT_GE(blocks, 1);
}
