// SPDX-License-Identifier: MIT
#include "replystreamcomparison.h"

#include "biz_cmdswork.h"
#include "core_serialport.h"
#include "core_usb.h"
#include "literalreplystream.h"
#include "messagecapture.h"
#include "recordequality.h"
#include "replyformat.h"
#include "utility_manage.h"
#include "vela_core_serialport.h"

#include <deque>
#include <memory>

namespace
{

using replystreamcomparison::Line;

constexpr auto deviceType = static_cast<model_GlobalEnum::DeviceType>(0x4711);

// The format of a link; the link is kept, since closing it may pause.
template <class Link>
const ReplyFormat& formatOf()
{
    struct Opened : Link {
        using Link::format;
    };
    static const auto* const link = new Opened;
    return link->format;
}

struct Outcome {
    std::deque<model_Protocoldata> records;
    QByteArray remaining;
    int pauses = 0;
    QStringList lines;
};

// Delivers the chunks and counts the pauses, in whichever parser it is asked to.
class Feed
{
public:
    explicit Feed(const QVector<QByteArray>& all) : chunks(all) {}

    template <class Append>
    void next(Append&& append)
    {
        if (position < chunks.size()) {
            append(chunks.at(position++));
        }
    }
    bool exhausted() const { return position == chunks.size(); }

    int pauses = 0;

private:
    const QVector<QByteArray>& chunks;
    int position = 0;
};

class FedStream : public ReplyStream
{
public:
    explicit FedStream(Feed& source) : feed(source) {}

private:
    void sleep(std::chrono::milliseconds) override
    {
        ++feed.pauses;
        feed.next([this](const QByteArray& chunk) { received.append(chunk); });
    }

    Feed& feed;
};

template <class Stream>
class FedLiteral : public Stream
{
public:
    template <class... Arguments>
    explicit FedLiteral(Feed& source, Arguments&&... arguments)
        : Stream(std::forward<Arguments>(arguments)...), feed(source)
    {
    }

private:
    void pause(int) override
    {
        ++feed.pauses;
        feed.next([this](const QByteArray& chunk) { this->appendBuffData(chunk); });
    }
    void addToReceivedQueueElsewhere(model_Protocoldata record) override
    {
        this->addToReceivedQueue(record);
    }

    Feed& feed;
};

template <class Pass, class Append, class Size>
void runAll(Feed& feed, Pass&& pass, Append&& append, Size&& size)
{
    for (qsizetype before = -1; !feed.exhausted() || size() != before;) {
        before = size();
        feed.next(append);
        pass();
    }
}

Outcome collect(const Feed& feed, const QByteArray& remaining, const MessageCapture& capture)
{
    Outcome outcome;
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    outcome.records.swap(biz_CMDSWork::receivequeueHexCmd);
    outcome.remaining = remaining;
    outcome.pauses = feed.pauses;
    for (const QString& line : capture.lines()) {
        if (!line.contains(QLatin1String("getArrayData"))) { // the literal codec is silent
            outcome.lines << line;
        }
    }
    return outcome;
}

Outcome runOurs(const ReplyFormat& format, Feed& feed)
{
    const MessageCapture capture;
    const auto stream = std::make_shared<FedStream>(feed);
    stream->setOriginType(deviceType);
    stream->setOriginName(QStringLiteral("pts/7"));
    ReplyStreamParser parser(format, stream);
    runAll(
        feed, [&parser] { parser.pass(); },
        [&parser](const QByteArray& chunk) { parser.appendBuffData(chunk); },
        [&stream] { return stream->received.size(); });
    return collect(feed, stream->received.peek(stream->received.size()), capture);
}

Outcome runLiteral(LiteralReplyStream& stream, Feed& feed)
{
    const MessageCapture capture;
    stream.deviceType = deviceType;
    stream.portName = QStringLiteral("pts/7");
    const auto size = [&stream] { return stream.getBuffData(0xffff).size(); };
    runAll(
        feed, [&stream] { stream.pass(); },
        [&stream](const QByteArray& chunk) { stream.appendBuffData(chunk); }, size);
    return collect(feed, stream.getBuffData(0xffff), capture);
}

const ReplyFormat& ours(Line line)
{
    switch (line) {
    case Line::Usb:
        return formatOf<Core_USB>();
    case Line::SecondSerial:
        return formatOf<Vela_Core_SerialPort>();
    case Line::Serial:
    case Line::ShortBlockSerial:
        break;
    }
    return formatOf<Core_SerialPort>();
}

std::unique_ptr<LiteralReplyStream> literal(Line line, Feed& feed)
{
    if (line == Line::SecondSerial) {
        return std::make_unique<FedLiteral<LiteralBinaryReplyStream>>(feed);
    }
    return std::make_unique<FedLiteral<LiteralReplyStream>>(feed, line == Line::Usb);
}

QString compare(const Outcome& a, const Outcome& b)
{
    if (a.records.size() != b.records.size()) {
        return QStringLiteral("%1 records, %2 expected")
            .arg(a.records.size())
            .arg(b.records.size());
    }
    for (std::size_t i = 0; i < a.records.size(); ++i) {
        if (!sameRecord(a.records[i], b.records[i])) {
            return QStringLiteral("record %1 differs").arg(i);
        }
    }
    if (a.remaining != b.remaining) {
        return QStringLiteral("%1 bytes left, %2 expected")
            .arg(a.remaining.size())
            .arg(b.remaining.size());
    }
    if (a.pauses != b.pauses) {
        return QStringLiteral("%1 pauses, %2 expected").arg(a.pauses).arg(b.pauses);
    }
    if (a.lines != b.lines) {
        return QStringLiteral("debug lines \"%1\", expected \"%2\"")
            .arg(a.lines.join(QLatin1Char('\n')), b.lines.join(QLatin1Char('\n')));
    }
    return QString();
}

} // namespace

QString replystreamcomparison::difference(Line line, const QVector<QByteArray>& chunks)
{
    Utility_Manage::setDeviceType(line == Line::ShortBlockSerial || line == Line::Usb
                                      ? model_GlobalEnum::Device290200
                                      : model_GlobalEnum::DeviceUnknown);
    Feed ourFeed(chunks);
    Feed literalFeed(chunks);
    const Outcome was = runOurs(ours(line), ourFeed);
    return compare(was, runLiteral(*literal(line, literalFeed), literalFeed));
}

QString replystreamcomparison::difference(const QByteArray& script)
{
    if (script.isEmpty()) {
        return QString();
    }
    QVector<QByteArray> chunks;
    for (int position = 1; position < script.size();) {
        const int length = static_cast<quint8>(script.at(position));
        chunks.append(script.mid(position + 1, length));
        position += 1 + length;
    }
    return difference(static_cast<Line>(static_cast<quint8>(script.at(0)) % lineCount), chunks);
}

QByteArray replystreamcomparison::script(Line line, const QVector<QByteArray>& chunks)
{
    QByteArray script(1, static_cast<char>(line));
    for (const QByteArray& chunk : chunks) {
        script.append(static_cast<char>(chunk.size()));
        script.append(chunk);
    }
    return script;
}
