// SPDX-License-Identifier: MIT
#pragma once

#include "answersource.h"
#include "capturerecord.h"
#include "commandfield.h"

#include <QString>

#include <chrono>
#include <map>
#include <vector>

/// What a capture tells of one link: the commands that were sent, in order, and what came back
/// behind each, before the next.
struct Recording {
    struct Step {
        DeviceCommand command;
        std::chrono::nanoseconds at{0}; ///< since the first command
        std::vector<Emission> answer;   ///< as it came: datagrams, reports, pieces of a stream

        QByteArray answerBytes() const; ///< in one piece
    };

    QByteArray link; ///< its name in the capture
    FieldSet fields = FieldSet::TextBody;
    std::vector<Step> steps;
    qint64 noise = 0; ///< bytes sent that were no command; they are left out

    /// Reads a capture file. Where it has several links of this medium, \a link names the one that
    /// is meant; otherwise it may be any. Throws BadInput if there is no such file or link.
    static Recording read(const QString& path, CaptureRecord::Medium medium, const QString& link);

    /// The records of one link, in the order of their times.
    static Recording of(const std::vector<CaptureRecord>& records);
};

/// Answers each command as the recorded device did: a command that was recorded several times gets
/// its answers in turn, and then from the first again, each after the pause that it had. One that
/// was never recorded gets none.
class RecordedAnswers : public AnswerSource
{
public:
    explicit RecordedAnswers(const Recording& recording);

    void answer(const DeviceCommand& command, Answer& answer) override;

private:
    struct Turns {
        std::vector<std::vector<Emission>> answers;
        std::size_t next = 0;
    };

    FieldSet fields;
    std::map<QByteArray, Turns> recorded; // by the command's frame
};
