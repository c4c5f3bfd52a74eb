// SPDX-License-Identifier: MIT
// Any bytes as a packet of a capture, and as a capture file, which tells what a device answered.
#include "capturerecord.h"
#include "recording.h"
#include "recordtext.h"
#include "require.h"
#include "toolerror.h"

#include <QFile>
#include <QTemporaryDir>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace
{

using Medium = CaptureRecord::Medium;

void lookAtPacket(const QByteArray& bytes)
{
    const auto record = CaptureRecord::decode(bytes);
    if (!record) {
        return;
    }
    const auto again = CaptureRecord::decode(record->encode());
    require(again && again->medium == record->medium && again->what == record->what &&
                again->link == record->link && again->bytes == record->bytes,
            "what a packet says is written and read alike");
}

void lookAt(const Recording& recording)
{
    std::chrono::nanoseconds before{0};
    for (const Recording::Step& step : recording.steps) {
        require(step.at >= before, "commands are in order");
        before = step.at;
        for (const Emission& piece : step.answer) {
            require(piece.after.count() >= 0, "no pause is negative");
        }
    }
    if (!recording.steps.empty()) {
        const Recording::Step& first = recording.steps.front();
        RecordedAnswers answers(recording);
        Answer answer;
        answers.answer(first.command, answer);
        require(answer.pieces.size() == first.answer.size(),
                "the first command gets its answer first");
    }
}

void lookAtFile(const QByteArray& bytes)
{
    static const QTemporaryDir directory(QStringLiteral("/dev/shm/fuzz_capture"));
    const QString path = directory.filePath(QStringLiteral("capture"));
    QFile file(path);
    require(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size(), "a file");
    file.close();
    for (const Medium medium :
         {Medium::Udp, Medium::Serial, Medium::Vela, Medium::Usb, Medium::Osd}) {
        try {
            lookAt(Recording::read(path, medium, QStringLiteral("a link")));
        } catch (const BadInput& wrong) {
            require(*wrong.what() != '\0', "a refusal has words");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    lookAtPacket(bytes);
    lookAtFile(bytes);
    return 0;
}
