// SPDX-License-Identifier: MIT
#include "commands.h"

#include "commandfields.h"
#include "commandframe.h"
#include "osdframe.h"
#include "output.h"
#include "recordtext.h"
#include "replykinds.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QRegularExpression>

namespace
{

// One frame, read and judged.
struct Verdict {
    QString form; // what it is
    Command command;
    FieldSet fields = FieldSet::TextBody;
    QString wrong; // empty: it is valid
};

QString wrongChecksum(int sent, int right)
{
    return QStringLiteral("its checksum is %1, and %2 would be right")
        .arg(sent, 2, 16, QLatin1Char('0'))
        .arg(right, 2, 16, QLatin1Char('0'));
}

QString wrongLength(int announced, int has)
{
    return announced == has
               ? QString()
               : QStringLiteral("it announces %1 block bytes and has %2").arg(announced).arg(has);
}

// A reply that stands alone may have its block in another datagram.
QString wrongBlockOfReply(const model_Protocoldata& reply)
{
    using replykinds::Block;
    const replykinds::Kind kind = replykinds::kindOf(reply);
    const int has = reply.arryDatablock.size();
    if (has == 0) {
        return {};
    }
    if (kind.onStream == Block::None || kind.onStream == Block::Immediate) {
        return QStringLiteral("a reply of its kind has no block, and %1 bytes follow it").arg(has);
    }
    if (kind.onStream == Block::Announced) {
        return wrongLength(replykinds::announcedLength(reply), has);
    }
    const int right = replykinds::fixedLength(kind.onStream);
    const bool isRight = has == right || (kind.mayBeShort && has == replykinds::fixedLengthAShort);
    return isRight ? QString()
                   : QStringLiteral("a reply of its kind has a block of %1 bytes, and %2 follow it")
                         .arg(right)
                         .arg(has);
}

// A command without a block may have anything in the fields that announce its length.
QString wrongBlockOfCommand(const model_Protocoldata& command)
{
    const int has = command.arryDatablock.size();
    return has == 0 ? QString() : wrongLength(replykinds::announcedLength(command), has);
}

Verdict judgeText(const QByteArray& frame)
{
    Verdict verdict;
    if (frame.size() < commandframe::textLength) {
        verdict.wrong = QStringLiteral("a text frame has at least %1 bytes, this has %2")
                            .arg(commandframe::textLength)
                            .arg(frame.size());
        return verdict;
    }
    const bool isReply = frame.at(1) == commandframe::replyMark;
    if (frame.at(0) != commandframe::startMark ||
        (!isReply && frame.at(1) != commandframe::commandMark)) {
        verdict.wrong = QStringLiteral("a text frame begins with <T or <F (binary: --binary)");
        return verdict;
    }
    verdict.form = isReply ? QStringLiteral("reply") : QStringLiteral("command");
    const bool valid = commandframe::decodeText(frame, verdict.command.record);
    verdict.command.record.arryDatablock = frame.mid(commandframe::textLength);
    static const QRegularExpression hexadecimal(QStringLiteral("^[0-9a-fA-F]{16}$"));
    const QString digits = commandframe::digitsOf(frame);
    constexpr int checksumAt = 14;
    if (!hexadecimal.match(digits).hasMatch()) {
        verdict.wrong = QStringLiteral("its digits are not all hexadecimal");
    } else if (!valid) {
        verdict.wrong =
            wrongChecksum(digits.mid(checksumAt).toInt(nullptr, 16), verdict.command.record.CHKSUM);
    } else if (frame.at(commandframe::textLength - 1) != commandframe::endMark) {
        verdict.wrong = QStringLiteral("it does not end with >");
    } else {
        verdict.wrong = isReply ? wrongBlockOfReply(verdict.command.record)
                                : wrongBlockOfCommand(verdict.command.record);
    }
    return verdict;
}

Verdict judgeBinary(const QByteArray& frame)
{
    Verdict verdict;
    verdict.fields = FieldSet::BinaryHead;
    if (frame.size() < commandframe::binaryLength) {
        verdict.wrong = QStringLiteral("a binary frame has at least %1 bytes, this has %2")
                            .arg(commandframe::binaryLength)
                            .arg(frame.size());
        return verdict;
    }
    verdict.form = QStringLiteral("binary");
    const bool valid = commandframe::decodeBinary(frame, verdict.command.record);
    verdict.command.record.arryDatablock = frame.mid(commandframe::binaryLength);
    if (!valid) {
        int sum = 0;
        for (const char byte : frame.left(commandframe::binaryLength - 1)) {
            sum += static_cast<quint8>(byte);
        }
        verdict.wrong = wrongChecksum(verdict.command.record.CHKSUM, sum & 0xff);
    } else {
        verdict.wrong =
            wrongLength(verdict.command.record.aux6, verdict.command.record.arryDatablock.size());
    }
    return verdict;
}

// Neither of them carries a mark, a length or a checksum: there is only the size to be wrong.
Verdict judgeOsd(const QByteArray& frame)
{
    constexpr int shortest = osdframe::headLength + osdframe::tailLength;
    Verdict verdict;
    verdict.fields = FieldSet::OsdFrame;
    if (frame.size() < shortest) {
        verdict.wrong = QStringLiteral("a command has at least %1 bytes, this has %2 (an "
                                       "acknowledgement is OK and one byte)")
                            .arg(shortest)
                            .arg(frame.size());
        return verdict;
    }
    verdict.form = QStringLiteral("command");
    verdict.command = recordtext::osdCommand(frame);
    return verdict;
}

class Decode
{
public:
    explicit Decode(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    QByteArray frame() const;
    int showAcknowledgement(const QByteArray& bytes) const;

    std::string input;
    bool binary = false;
    bool osd = false;
    bool raw = false;
    bool json = false;
};

Decode::Decode(CLI::App& application)
    : parser(application.add_subcommand("decode", "Read a frame, without a device"))
{
    parser->add_option("frame", input, "<T... or <F..., hexadecimal digits, @FILE, or -")
        ->type_name("FRAME")
        ->required();
    auto* binaryFlag =
        parser->add_flag("--binary", binary, "a binary frame of vela:// instead of a text frame");
    parser->add_flag("--osd", osd, "a command of osd:// instead, or OK and a byte")
        ->excludes(binaryFlag);
    parser->add_flag("--raw", raw,
                     "take a file as it is, even if it looks like hexadecimal digits");
    parser->add_flag("--json", json, "print one JSON object");
    parser->footer(
        "@FILE is a file, - is standard input: the frame's bytes, or hexadecimal digits.\n"
        "\nExamples:\n"
        "  coremanage decode '<F010203040506071c>'\n"
        "  coremanage decode 3c46303130323033303430353036303731633e\n"
        "  coremanage decode --binary @captured.bin --json\n"
        "  coremanage decode --osd 4f4b01\n"
        "\nExit codes: 0 a valid frame, 1 no valid frame, 2 wrong input.");
}

QByteArray Decode::frame() const
{
    const QString option = QStringLiteral("frame");
    QByteArray text = QByteArray::fromStdString(input);
    if (!binary && !osd && text.startsWith(commandframe::startMark)) {
        return text;
    }
    if (text != "-" && !text.startsWith('@')) {
        return typed::bytes(option, input, typed::mostFile);
    }
    const QByteArray content = typed::file(
        option, QString::fromStdString(text == "-" ? input : input.substr(1)), typed::mostFile);
    static const QRegularExpression digits(QStringLiteral("^[0-9a-fA-F\\s]+$"));
    const bool looksLikeDigits = digits.match(QString::fromLatin1(content)).hasMatch();
    return raw || !looksLikeDigits ? content
                                   : typed::bytes(option, content.toStdString(), typed::mostFile);
}

int Decode::showAcknowledgement(const QByteArray& bytes) const
{
    const auto status = static_cast<quint8>(bytes.back());
    output::line(json ? recordtext::oneLine({{QStringLiteral("form"), QStringLiteral("reply")},
                                             {QStringLiteral("status"), status},
                                             {QStringLiteral("valid"), true}})
                      : QStringLiteral("reply OK %1").arg(status, 2, 16, QLatin1Char('0')));
    return exitcode::success;
}

int Decode::run()
{
    const QByteArray bytes = frame();
    if (osd && bytes.size() == osdframe::acknowledgementLength &&
        bytes.startsWith(osdframe::acknowledgementMark)) {
        return showAcknowledgement(bytes);
    }
    const Verdict verdict = osd ? judgeOsd(bytes) : binary ? judgeBinary(bytes) : judgeText(bytes);
    if (!verdict.form.isEmpty() && json) {
        QJsonObject object = recordtext::json(verdict.command, verdict.fields);
        object.insert(QStringLiteral("form"), verdict.form);
        object.insert(QStringLiteral("valid"), verdict.wrong.isEmpty());
        output::line(recordtext::oneLine(object));
    } else if (!verdict.form.isEmpty()) {
        output::line(verdict.form + QLatin1Char(' ') +
                     recordtext::line(verdict.command, verdict.fields));
        output::raw(recordtext::dump(recordtext::block(verdict.command, verdict.fields)).toUtf8());
    }
    if (!verdict.wrong.isEmpty()) {
        throw ToolError(exitcode::failed, QStringLiteral("no valid frame: ") + verdict.wrong);
    }
    return exitcode::success;
}

} // namespace

commands::Subcommand commands::addDecode(CLI::App& application)
{
    const auto decode = std::make_shared<Decode>(application);
    return {decode->parser, [decode] { return decode->run(); }};
}
