// SPDX-License-Identifier: MIT
#include "capturefile.h"
#include "commandframe.h"
#include "dissection.h"
#include "luatables.h"
#include "osdframe.h"
#include "tests/support/replybytes.h"
#include "tooldecode.h"

#include <gtest/gtest.h>

#include <QFile>

#include <random>

namespace
{

using Medium = CaptureFile::Medium;
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
               << written.frame.toHex(' ').constData();
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
        for (quint8* field : {&made.HEAD, &made.ADDR, &made.CMD, &made.DAT1, &made.DAT2, &made.DAT3,
                              &made.aux3}) {
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

    /// One byte of \a frame from \a first on is another one, of the same sort where it matters.
    void damage(QByteArray& frame, int first, int last)
    {
        const int at = first + below(last - first);
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
        captured.link(Medium::Udp, What::Sent, QStringLiteral("udp://10.0.0.2"), one.frame);
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
        captured.link(Medium::Vela, What::Sent, QStringLiteral("vela:///dev/ttyS0"), one.frame);
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
        captured.link(Medium::Udp, isSent ? What::Sent : What::Received,
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
        QByteArray frame =
            isSent ? commandframe::encodeText(record) : frames.textReply(record);
        const bool isDamaged = frames.chance(20);
        if (isDamaged) {
            frame.truncate(commandframe::textLength);
            frames.damage(frame, isSent || isWaiting ? 2 : 0, frame.size());
        }
        for (QByteArray::size_type at = 0; at < frame.size(); at += 540) {
            put(isSent, frame.mid(at, 540));
        }
        model_Protocoldata read;
        const bool isReply = !isSent && frame.startsWith("<F") &&
                             commandframe::decodeText(frame, read);
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
