// SPDX-License-Identifier: MIT
#include "commands.h"

#include "commandframe.h"
#include "options.h"
#include "osdframe.h"
#include "output.h"
#include "recordtext.h"
#include "replykinds.h"
#include "toolerror.h"

#include <QRegularExpression>

#include <memory>
#include <numeric>

namespace
{

// One frame, read and judged.
struct Verdict {
    QString form; // what it is
    Command command;
    QString wrong; // empty: it is valid
};

QString wrongChecksum(int sent, int right)
{
    return QString("its checksum is %1, and %2 would be right")
        .arg(recordtext::hex(sent), recordtext::hex(right));
}

QString wrongLength(int announced, qsizetype has)
{
    return announced == has
               ? QString()
               : QString("it announces %1 block bytes and has %2").arg(announced).arg(has);
}

QString wrongBlockOfReply(const model_Protocoldata& reply)
{
    using replykinds::Block;
    const replykinds::Kind kind = replykinds::kindOf(reply);
    const auto has = reply.arryDatablock.size();
    if (kind.onStream == Block::None || kind.onStream == Block::Immediate) {
        return QString("a reply of its kind has no block, and %1 bytes follow it").arg(has);
    }
    if (kind.onStream == Block::Announced) {
        return wrongLength(replykinds::announcedLength(reply), has);
    }
    const int right = replykinds::fixedLength(kind.onStream);
    const bool isRight = has == right || (kind.mayBeShort && has == replykinds::fixedLengthAShort);
    return isRight ? QString()
                   : QString("a reply of its kind has a block of %1 bytes, and %2 follow it")
                         .arg(right)
                         .arg(has);
}

void judgeText(const QByteArray& frame, Verdict& verdict)
{
    const bool isReply = frame.at(1) == commandframe::replyMark;
    if (frame.at(0) != commandframe::startMark ||
        (!isReply && frame.at(1) != commandframe::commandMark)) {
        verdict.wrong = "a text frame begins with <T or <F (binary: --binary)";
        return;
    }
    verdict.form = isReply ? "reply" : "command";
    model_Protocoldata& record = verdict.command.record;
    const bool valid = commandframe::decodeText(frame, record);
    record.arryDatablock = frame.mid(commandframe::textLength);
    static const QRegularExpression hexadecimal("^[0-9a-fA-F]{16}$");
    const QString digits = commandframe::digitsOf(frame);
    constexpr int checksumAt = 14;
    if (!hexadecimal.match(digits).hasMatch()) {
        verdict.wrong = "its digits are not all hexadecimal";
    } else if (!valid) {
        verdict.wrong = wrongChecksum(digits.mid(checksumAt).toInt(nullptr, 16), record.CHKSUM);
    } else if (frame.at(commandframe::textLength - 1) != commandframe::endMark) {
        verdict.wrong = "it does not end with >";
    } else if (!record.arryDatablock.isEmpty()) { // it may be in another datagram, or not be sent
        verdict.wrong =
            isReply ? wrongBlockOfReply(record)
                    : wrongLength(replykinds::announcedLength(record), record.arryDatablock.size());
    }
}

void judgeBinary(const QByteArray& frame, Verdict& verdict)
{
    verdict.form = "binary";
    model_Protocoldata& record = verdict.command.record;
    const bool valid = commandframe::decodeBinary(frame, record);
    record.arryDatablock = frame.mid(commandframe::binaryLength);
    if (!valid) {
        const QByteArray summed = frame.left(commandframe::binaryLength - 1);
        const int sum = std::accumulate(summed.begin(), summed.end(), 0);
        verdict.wrong = wrongChecksum(record.CHKSUM, sum & 0xff);
    } else {
        verdict.wrong = wrongLength(record.aux6, record.arryDatablock.size());
    }
}

Verdict judge(const QByteArray& frame, FieldSet fields)
{
    const bool isOsd = fields == FieldSet::OsdFrame;
    const bool isBinary = fields == FieldSet::BinaryHead;
    const int least = isOsd      ? osdframe::headLength + osdframe::tailLength
                      : isBinary ? commandframe::binaryLength
                                 : commandframe::textLength;
    Verdict verdict;
    if (frame.size() < least) {
        verdict.wrong = QString("%1 has at least %2 bytes, this has %3")
                            .arg(isOsd      ? "a command"
                                 : isBinary ? "a binary frame"
                                            : "a text frame")
                            .arg(least)
                            .arg(frame.size());
    } else if (isOsd) { // no mark, length or checksum can be wrong
        verdict.form = "command";
        verdict.command = recordtext::osdCommand(frame);
    } else if (isBinary) {
        judgeBinary(frame, verdict);
    } else {
        judgeText(frame, verdict);
    }
    return verdict;
}

struct Decode {
    std::string input;
    bool binary = false;
    bool osd = false;
    bool raw = false;
    bool json = false;

    int run() const;
    QByteArray frame() const;
    void showAcknowledgement(const QByteArray& bytes) const;
};

QByteArray Decode::frame() const
{
    const QString option = "frame";
    const QString text = QString::fromStdString(input);
    if (!binary && !osd && text.startsWith(QLatin1Char(commandframe::startMark))) {
        return QByteArray::fromStdString(input);
    }
    if (text != "-" && !text.startsWith('@')) {
        return typed::bytes(option, text, typed::fileLimit);
    }
    const QByteArray content =
        typed::file(option, text.startsWith('@') ? text.mid(1) : text, typed::fileLimit);
    static const QRegularExpression digits("^[0-9a-fA-F\\s]+$");
    const QString typedDigits = QString::fromLatin1(content.constData()); // up to a zero byte
    return raw || !digits.match(typedDigits).hasMatch()
               ? content
               : typed::bytes(option, typedDigits, typed::fileLimit);
}

void Decode::showAcknowledgement(const QByteArray& bytes) const
{
    const auto status = static_cast<quint8>(bytes.back());
    if (json) {
        output::json({{"form", "reply"}, {"status", status}, {"valid", true}});
    } else {
        output::line("reply OK " + recordtext::hex(status));
    }
}

int Decode::run() const
{
    const QByteArray bytes = frame();
    if (osd && bytes.size() == osdframe::acknowledgementLength &&
        bytes.startsWith(osdframe::acknowledgementMark)) {
        showAcknowledgement(bytes);
        return exitcode::success;
    }
    const FieldSet fields = osd      ? FieldSet::OsdFrame
                            : binary ? FieldSet::BinaryHead
                                     : FieldSet::TextBody;
    const Verdict verdict = judge(bytes, fields);
    if (!verdict.form.isEmpty() && json) {
        QJsonObject object = recordtext::json(verdict.command, fields);
        object.insert("form", verdict.form);
        object.insert("valid", verdict.wrong.isEmpty());
        output::json(object);
    } else if (!verdict.form.isEmpty()) {
        output::line(verdict.form + ' ' + recordtext::line(verdict.command, fields));
        output::raw(recordtext::dump(recordtext::block(verdict.command, fields)).toUtf8());
    }
    if (!verdict.wrong.isEmpty()) {
        throw ToolError(exitcode::failed, "no valid frame: " + verdict.wrong);
    }
    return exitcode::success;
}

} // namespace

void commands::addDecode(CLI::App& application, int& code)
{
    auto* parser = application.add_subcommand("decode", "Read a frame, without a device");
    const auto decode = std::make_shared<Decode>();
    parser->add_option("frame", decode->input, "<T... or <F..., hexadecimal digits, @FILE, or -")
        ->type_name("FRAME")
        ->required();
    auto* binary = parser->add_flag("--binary", decode->binary,
                                    "a binary frame of vela:// instead of a text frame");
    parser->add_flag("--osd", decode->osd, "a command of osd:// instead, or OK and a byte")
        ->excludes(binary);
    parser->add_flag("--raw", decode->raw,
                     "take a file as it is, even if it looks like hexadecimal digits");
    parser->add_flag("--json", decode->json, "print one JSON object");
    parser->footer(
        "@FILE is a file, - is standard input: the frame's bytes, or hexadecimal digits.\n"
        "\nExamples:\n"
        "  coremanage decode '<F010203040506071c>'\n"
        "  coremanage decode 3c46303130323033303430353036303731633e\n"
        "  coremanage decode --binary @captured.bin --json\n"
        "  coremanage decode --osd 4f4b01\n"
        "\nExit codes: 0 a valid frame, 1 no valid frame, 2 wrong input.");
    parser->callback([decode, &code] { code = decode->run(); });
}
