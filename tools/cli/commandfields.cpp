// SPDX-License-Identifier: MIT
#include "commandfields.h"

#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <unistd.h>

namespace
{

constexpr int mostByte = 0xff;
constexpr int mostWord = 0xffff;
constexpr int mostBlock = 65535; // DAT4 * 256 + DAT3 says no more
constexpr int binaryLead = 0xf11f;

// The frames that carry a field.
constexpr unsigned byText = 1;
constexpr unsigned byBinary = 2;
constexpr unsigned byOsd = 4;
constexpr unsigned byDevices = byText | byBinary;

struct Field {
    const char* name;
    unsigned carried;
    const char* help;
};

constexpr Field fieldTable[] = {
    {"--cmd", byDevices, "command code, for instance 0x8b"},
    {"--dat1", byDevices, "sub-code (0)"},
    {"--dat2", byDevices, "(0)"},
    {"--dat3", byDevices, "low byte of the block's length (that of --block, else 0)"},
    {"--dat4", byDevices, "high byte of the block's length (that of --block, else 0)"},
    {"--head", byText, "first body byte (0)"},
    {"--addr", byDevices, "device address byte (0)"},
    {"--block", byDevices, "block: @FILE, or hexadecimal digits"},
    {"--aux1", byBinary, "binary frames: bytes 0 and 1 (0xf11f)"},
    {"--aux3", byBinary, "binary frames: byte 3 (0)"},
    {"--aux4", byBinary, "binary frames: bytes 4 and 5 (0)"},
    {"--aux5", byBinary, "binary frames: bytes 6 and 7 (0)"},
    {"--ch2", byOsd, "byte 0 (0)"},
    {"--ch3", byOsd, "byte 1 (0)"},
    {"--ch4", byOsd, "byte 3, behind ch5 (0)"},
    {"--ch5", byOsd, "byte 2 (0)"},
    {"--ch7", byOsd, "byte 4 (0)"},
    {"--ch8", byOsd, "byte 5 (0)"},
    {"--ch9", byOsd, "the byte behind the data (0)"},
    {"--ch10", byOsd, "the last byte (0)"},
    {"--data", byOsd, "data: @FILE, or hexadecimal digits"},
    {"--text", byOsd, "data: a text, sent in UTF-8"},
};

struct Carrier {
    unsigned bit;
    const char* name;
};

Carrier carrierOf(FieldSet fields)
{
    switch (fields) {
    case FieldSet::BinaryHead:
        return {byBinary, "binary"};
    case FieldSet::OsdFrame:
        return {byOsd, "on-screen-display"};
    case FieldSet::TextBody:
        break;
    }
    return {byText, "text"};
}

} // namespace

void CommandFields::addTo(CLI::App& app)
{
    for (const Field& field : fieldTable) {
        app.add_option_function<std::string>(
               field.name, [this, &field](const std::string& text) { values[field.name] = text; },
               field.help)
            ->type_name("")
            ->group(field.carried == byOsd ? "Command of an on-screen display" : "Command");
    }
}

int CommandFields::number(const std::string& name, int most, int otherwise) const
{
    const auto found = values.find(name);
    if (found == values.end()) {
        return otherwise;
    }
    return static_cast<int>(typed::number(QString::fromStdString(name), found->second, 0, most));
}

quint8 CommandFields::byte(const char* name, int otherwise) const
{
    return static_cast<quint8>(number(name, mostByte, otherwise));
}

Command CommandFields::read(FieldSet fields) const
{
    const Carrier carrier = carrierOf(fields);
    for (const Field& field : fieldTable) {
        if (given(field.name) && (field.carried & carrier.bit) == 0) {
            throw BadInput(QStringLiteral("%1: %2 frames do not carry it: leave it out")
                               .arg(QLatin1String(field.name), QLatin1String(carrier.name)));
        }
    }
    return fields == FieldSet::OsdFrame ? readOsd() : readDevice(fields == FieldSet::BinaryHead);
}

Command CommandFields::readOsd() const
{
    if (values.empty()) {
        throw BadInput(QStringLiteral("there is no command: give --ch2 to --ch10 (but no ch6), "
                                      "--data or --text"));
    }
    if (given("--data") && given("--text")) {
        throw BadInput(QStringLiteral("--text: there is --data already: give one of them"));
    }
    Command command;
    model_OsdParam& osd = command.osd;
    const auto character = [this](const char* name) { return static_cast<char>(byte(name)); };
    osd.ch2 = character("--ch2");
    osd.ch3 = character("--ch3");
    osd.ch4 = character("--ch4");
    osd.ch5 = character("--ch5");
    osd.ch7 = character("--ch7");
    osd.ch8 = character("--ch8");
    osd.ch9 = character("--ch9");
    osd.ch10 = character("--ch10");
    if (given("--data")) {
        osd.arryData = typed::bytes(QStringLiteral("--data"), values.at("--data"), typed::mostFile);
    } else if (given("--text")) {
        osd.arryData = QByteArray::fromStdString(values.at("--text"));
    }
    return command;
}

Command CommandFields::readDevice(bool binary) const
{
    if (!given("--cmd")) {
        throw BadInput(QStringLiteral("--cmd is missing: give the command code, like --cmd 0x8b"));
    }
    Command command;
    model_Protocoldata& record = command.record;
    if (given("--block")) {
        record.arryDatablock =
            typed::bytes(QStringLiteral("--block"), values.at("--block"), mostBlock);
    }
    const int length = record.arryDatablock.size();
    const auto word = [this](const char* name, int otherwise = 0) {
        return static_cast<quint16>(number(name, mostWord, otherwise));
    };
    record.HEAD = byte("--head");
    record.ADDR = byte("--addr");
    record.CMD = byte("--cmd");
    record.DAT1 = byte("--dat1");
    record.DAT2 = byte("--dat2");
    record.DAT3 = byte("--dat3", length & mostByte);
    record.DAT4 = byte("--dat4", length >> 8);
    record.aux1 = word("--aux1", binary ? binaryLead : 0);
    record.aux3 = byte("--aux3");
    record.aux4 = word("--aux4");
    record.aux5 = word("--aux5");
    return command;
}

qint64 typed::number(const QString& option, const std::string& text, qint64 least, qint64 most)
{
    const QString digits = QString::fromStdString(text);
    const bool isHex = digits.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    static const QRegularExpression plain(
        QRegularExpression::anchoredPattern(QStringLiteral("0[xX][0-9a-fA-F]+|[0-9]+")));
    bool valid = false;
    const qint64 value = isHex ? digits.mid(2).toLongLong(&valid, 16) : digits.toLongLong(&valid);
    if (!plain.match(digits).hasMatch() || !valid || value < least || value > most) {
        throw BadInput(QStringLiteral("%1: \"%2\" will not do: give a number from %3 to %4 (0x%5)")
                           .arg(option, digits)
                           .arg(least)
                           .arg(most)
                           .arg(most, 0, 16));
    }
    return value;
}

QByteArray typed::bytes(const QString& option, const std::string& text, int most)
{
    QString digits = QString::fromStdString(text);
    if (digits.startsWith(QLatin1Char('@'))) {
        return file(option, digits.mid(1), most);
    }
    static const QRegularExpression blanks(QStringLiteral("[\\s:]+"));
    static const QRegularExpression hexadecimal(
        QRegularExpression::anchoredPattern(QStringLiteral("[0-9a-fA-F]+")));
    digits.remove(blanks);
    if (digits.size() % 2 != 0 || !hexadecimal.match(digits).hasMatch()) {
        throw BadInput(QStringLiteral("%1: \"%2\" will not do: give hexadecimal digits in pairs, "
                                      "like 00ff10, or @FILE")
                           .arg(option, QString::fromStdString(text).left(40)));
    }
    QByteArray bytes = QByteArray::fromHex(digits.toLatin1());
    if (bytes.size() > most) {
        throw BadInput(QStringLiteral("%1: %2 bytes are too many: give at most %3")
                           .arg(option)
                           .arg(bytes.size())
                           .arg(most));
    }
    return bytes;
}

QByteArray typed::file(const QString& option, const QString& path, int most)
{
    const auto refuse = [&](const QString& reason) {
        throw BadInput(QStringLiteral("%1: \"%2\" cannot be read: %3: give a file, or - for "
                                      "standard input")
                           .arg(option, path, reason));
    };
    if (path.isEmpty()) {
        refuse(QStringLiteral("that is no name"));
    }
    if (QFileInfo(path).isDir()) {
        refuse(QStringLiteral("it is a directory"));
    }
    QFile file(path);
    // By its descriptor: as a stream it would be switched to not waiting, for whoever shares it.
    const bool opened = path == QLatin1String("-") ? file.open(STDIN_FILENO, QIODevice::ReadOnly)
                                                   : file.open(QIODevice::ReadOnly);
    if (!opened) {
        refuse(file.errorString());
    }
    QByteArray content;
    QByteArray piece;
    do { // a pipe gives what is there, and only nothing is its end
        piece = file.read(most + 1 - content.size());
        content += piece;
    } while (!piece.isEmpty() && content.size() <= most);
    if (file.error() != QFileDevice::NoError) {
        refuse(file.errorString());
    }
    if (content.size() > most) {
        throw BadInput(QStringLiteral("%1: \"%2\" has more than %3 bytes: give at most %3")
                           .arg(option, path)
                           .arg(most));
    }
    return content;
}
