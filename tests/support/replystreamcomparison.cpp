// SPDX-License-Identifier: MIT
#include "replystreamcomparison.h"

#include "core_serialport.h"
#include "core_usb.h"
#include "cutscript.h"
#include "hostqueue.h"
#include "literalreplystream.h"
#include "messagecapture.h"
#include "replyformat.h"
#include "replyoutcome.h"
#include "utility_manage.h"
#include "vela_core_serialport.h"

#include <memory>

namespace
{

using replystreamcomparison::Arrival;
using replystreamcomparison::Line;

constexpr std::chrono::milliseconds chunkPause{4}; // as the pauses in the wait for a block
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

// Brings what is due in each pause, in whichever parser it is asked to, and counts the pauses.
class Feed
{
public:
    explicit Feed(const std::vector<Arrival>& all) : arrivals(all) {}

    template <class Append>
    void pass(std::chrono::milliseconds duration, Append&& append)
    {
        ++pauses;
        now += duration;
        for (; !exhausted() && arrivals[next].at <= now; ++next) {
            append(arrivals[next].bytes);
        }
    }
    bool exhausted() const { return next == arrivals.size(); }

    int pauses = 0;
    std::chrono::milliseconds now{0};

private:
    const std::vector<Arrival>& arrivals;
    std::size_t next = 0;
};

// Stops its parser when everything has come and a whole pass has moved nothing.
class FedStream : public ReplyStream
{
public:
    FedStream(Feed& source, std::chrono::milliseconds betweenPasses)
        : feed(source), interval(betweenPasses)
    {
    }

private:
    void sleep(std::chrono::milliseconds duration) override
    {
        if (duration == interval) {
            const ReceiveBuffer::Size size = received.size();
            token.set(!feed.exhausted() || size != before);
            before = size;
        }
        feed.pass(duration, [this](const QByteArray& bytes) { received.append(bytes); });
    }

    Feed& feed;
    const std::chrono::milliseconds interval;
    ReceiveBuffer::Size before = -1;
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
    void pause(int ms) override
    {
        feed.pass(std::chrono::milliseconds(ms),
                  [this](const QByteArray& bytes) { this->appendBuffData(bytes); });
    }
    void addToReceivedQueueElsewhere(model_Protocoldata record) override
    {
        this->addToReceivedQueue(record);
    }

    Feed& feed;
};

ReplyOutcome collect(const Feed& feed, const QByteArray& remaining, const MessageCapture& capture)
{
    ReplyOutcome outcome;
    outcome.flags = hostqueue::flag() ? "1" : "0";
    const auto records = hostqueue::records();
    outcome.records.assign(records.begin(), records.end());
    outcome.remaining = remaining;
    outcome.pauses = feed.pauses;
    outcome.elapsedMs = feed.now.count();
    outcome.lines = capture.lines();
    hostqueue::clear();
    return outcome;
}

ReplyOutcome runOurs(const ReplyFormat& format, Feed& feed)
{
    const MessageCapture capture;
    const auto stream = std::make_shared<FedStream>(feed, format.interval);
    stream->setOriginType(deviceType);
    stream->setOriginName(QStringLiteral("pts/7"));
    stream->token.set(true);
    ReplyStreamParser(format, stream).td_dealDataFunc();
    return collect(feed, stream->received.peek(stream->received.size()), capture);
}

ReplyOutcome runLiteral(LiteralReplyStream& stream, Feed& feed)
{
    const MessageCapture capture;
    stream.deviceType = deviceType;
    stream.portName = QStringLiteral("pts/7");
    const auto size = [&stream] { return stream.getBuffData(0xffff).size(); };
    qsizetype before = -1;
    for (bool isLast = false; !isLast;) {
        isLast = feed.exhausted() && size() == before;
        before = size();
        stream.loopOnce();
    }
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

} // namespace

QString replystreamcomparison::difference(Line line, const std::vector<Arrival>& arrivals)
{
    Utility_Manage::setDeviceType(line == Line::ShortBlockSerial || line == Line::Usb
                                      ? model_GlobalEnum::Device290200
                                      : model_GlobalEnum::DeviceUnknown);
    hostqueue::clear();
    Feed ourFeed(arrivals);
    Feed literalFeed(arrivals);
    const ReplyOutcome was = runOurs(ours(line), ourFeed);
    return was.difference(runLiteral(*literal(line, literalFeed), literalFeed));
}

QString replystreamcomparison::difference(Line line, const QVector<QByteArray>& chunks)
{
    std::vector<Arrival> arrivals;
    std::chrono::milliseconds at{0};
    for (const QByteArray& chunk : chunks) {
        arrivals.push_back({at += chunkPause, chunk});
    }
    return difference(line, arrivals);
}

QString replystreamcomparison::difference(const QByteArray& script)
{
    if (script.isEmpty()) {
        return QString();
    }
    return difference(static_cast<Line>(static_cast<quint8>(script.at(0)) % lineCount),
                      cutscript::pieces(script.mid(1)));
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
