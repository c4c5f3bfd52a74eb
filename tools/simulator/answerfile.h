// SPDX-License-Identifier: MIT
#pragma once

#include "answersource.h"
#include "devicecodec.h"

#include <QString>

#include <functional>
#include <memory>

/// Answers that a person wrote down, in JSON: which command gets which reply, block, delay or
/// faults, with states, counters and sequences. docs/answers.md says how;
/// examples/answers/answers.schema.json is what the text is checked against.
///
/// One thread. Its clock begins when it is made.
class AnswerFile : public AnswerSource
{
public:
    /// The link of the device that is to answer so.
    struct Link {
        devicecodec::Framing framing;
        Faulty faulty;
    };

    /// Reads a file that an answer names; \a place is where it names it.
    using ReadFile = std::function<QByteArray(const QString& place, const QString& path)>;
    using Clock = std::function<std::chrono::milliseconds()>;

    /// Throws std::invalid_argument, which says in UTF-8 what is wrong and where:
    /// rules[2].reply.dat1: invalid value "300" (expected 0 to 255). What \a readFile throws comes
    /// through. Without a \a clock, the time that has gone by.
    AnswerFile(const QByteArray& json, const Link& link, const ReadFile& readFile,
               Clock clock = {});
    ~AnswerFile() override;

    void answer(const DeviceCommand& command, Answer& answer) override;

    /// The schema, as it is installed.
    static QByteArray schema();

private:
    struct Rules;
    std::unique_ptr<Rules> rules;
};
