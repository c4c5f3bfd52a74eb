// SPDX-License-Identifier: MIT
#pragma once

#include "answerfile.h"
#include "simulateddevice.h"

#include <cstdlib>
#include <stdexcept>

/// What the fuzz target does with any text, and the tests do with its corpus.
namespace answerexercise
{

struct Line {
    AnswerFile::Link link;
    Medium medium;
};

/// Every kind of link that there are answers for.
inline const std::vector<Line>& lines()
{
    using devicecodec::Framing;
    static const std::vector<Line> all{
        {{Framing::Text, Faulty::Datagrams}, Medium::Datagrams},
        {{Framing::Text, Faulty::Stream}, Medium::Stream},
        {{Framing::Binary, Faulty::Stream}, Medium::Stream},
        {{Framing::Osd, Faulty::Endpoint}, Medium::Stream},
    };
    return all;
}

/// The frame of a command.
inline QByteArray command(devicecodec::Framing framing, int code, int subCode, int dat2)
{
    if (framing == devicecodec::Framing::Osd) {
        QByteArray frame(8, '\x01');
        frame[0] = static_cast<char>(code);
        frame[1] = static_cast<char>(subCode);
        frame[7] = static_cast<char>(dat2);
        return frame;
    }
    const bool isText = framing == devicecodec::Framing::Text;
    QByteArray body = QByteArray::fromHex(isText ? "5a01"
                                                 : "f11f01020304050600"
                                                   "00");
    for (const int byte : {code, subCode, dat2, 0, 0}) {
        body.append(static_cast<char>(byte));
    }
    body.append(static_cast<char>(devicecodec::checksum(body)));
    return isText ? "<T" + body.toHex() + ">" : body;
}

/// The device that these answers make. Time goes on by 7 ms whenever it is asked for. Throws
/// std::invalid_argument.
inline SimulatedDevice device(const QByteArray& answers, const Line& line)
{
    const auto readFile = [](const QString&, const QString&) { return QByteArray(200, 'f'); };
    const auto clock = [now = 0]() mutable { return std::chrono::milliseconds(now += 7); };
    SimulatedDevice::Settings settings;
    settings.framing = line.link.framing;
    settings.medium = line.medium;
    settings.dataLength = 0;
    settings.answers = std::make_shared<AnswerFile>(answers, line.link, readFile, clock);
    return SimulatedDevice(settings);
}

/// How many of the links take the text. On each that does, commands are sent; each must be answered
/// or left unanswered once, by writes that are not empty. Aborts if not.
inline int run(const QByteArray& answers)
{
    int taken = 0;
    for (const Line& line : lines()) {
        try {
            SimulatedDevice simulated = device(answers, line);
            ++taken;
            for (int i = 0; i < 40; ++i) {
                constexpr int codes[] = {0x01, 0x10, 0x79, 0x8e, 0x9a};
                const QByteArray bytes =
                    command(line.link.framing, codes[i % 5], i % 3 == 0 ? 0x27 : 1, i % 4);
                auto exchanges = simulated.receive(bytes);
                const auto rest = simulated.settle();
                exchanges.insert(exchanges.end(), rest.begin(), rest.end());
                if (exchanges.size() != 1) {
                    std::abort();
                }
            }
        } catch (const std::invalid_argument& wrong) {
            if (QByteArray(wrong.what()).isEmpty()) {
                std::abort();
            }
        }
    }
    return taken;
}

} // namespace answerexercise
