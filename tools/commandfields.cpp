// SPDX-License-Identifier: MIT
#include "commandfields.h"

#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace
{

constexpr int mostByte = 0xff;
constexpr int mostWord = 0xffff;
constexpr int mostBlock = 65535; // DAT4 * 256 + DAT3 says no more
constexpr qint64 mostFile = 16'777'216;
constexpr int binaryLead = 0xf11f;

enum class Carried { ByBoth, ByText, ByBinary };

struct Field {
    const char* name;
    Carried carried;
    const char* help;
};

constexpr Field fieldTable[] = {
    {"--cmd", Carried::ByBoth, "command code, for instance 0x8b"},
    {"--dat1", Carried::ByBoth, "sub-code (0)"},
    {"--dat2", Carried::ByBoth, "(0)"},
    {"--dat3", Carried::ByBoth, "low byte of the block's length (that of --block, else 0)"},
    {"--dat4", Carried::ByBoth, "high byte of the block's length (that of --block, else 0)"},
    {"--head", Carried::ByText, "first body byte (0)"},
    {"--addr", Carried::ByBoth, "device address byte (0)"},
    {"--block", Carried::ByBoth, "block: @FILE, or hexadecimal digits"},
    {"--aux1", Carried::ByBinary, "binary frames: bytes 0 and 1 (0xf11f)"},
    {"--aux3", Carried::ByBinary, "binary frames: byte 3 (0)"},
    {"--aux4", Carried::ByBinary, "binary frames: bytes 4 and 5 (0)"},
    {"--aux5", Carried::ByBinary, "binary frames: bytes 6 and 7 (0)"},
};

} // namespace

void CommandFields::addTo(CLI::App& app)
{
    for (const Field& field : fieldTable) {
        app.add_option_function<std::string>(
               field.name, [this, &field](const std::string& text) { values[field.name] = text; },
               field.help)
            ->type_name("")
            ->group("Command");
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

Command CommandFields::read(FieldSet fields) const
{
    const bool binary = fields == FieldSet::BinaryHead;
    for (const Field& field : fieldTable) {
        if (given(field.name) && field.carried == (binary ? Carried::ByText : Carried::ByBinary)) {
            throw BadInput(QStringLiteral("%1: %2 frames do not carry it: leave it out")
                               .arg(QLatin1String(field.name),
                                    binary ? QStringLiteral("binary") : QStringLiteral("text")));
        }
    }
    if (!given("--cmd")) {
        throw BadInput(QStringLiteral("--cmd is missing: give the command code, like --cmd 0x8b"));
    }
    Command command;
    model_Protocoldata& record = command.record;
    if (given("--block")) {
        record.arryDatablock = typed::bytes(QStringLiteral("--block"), values.at("--block"));
    }
    const int length = record.arryDatablock.size();
    if (length > mostBlock) {
        throw BadInput(QStringLiteral("--block: %1 bytes are too many: give at most %2")
                           .arg(length)
                           .arg(mostBlock));
    }
    const auto byte = [this](const char* name, int otherwise = 0) {
        return static_cast<quint8>(number(name, mostByte, otherwise));
    };
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
    static const QRegularExpression plain(QStringLiteral("^(0[xX][0-9a-fA-F]+|[0-9]+)$"));
    bool valid = plain.match(digits).hasMatch();
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

QByteArray typed::bytes(const QString& option, const std::string& text)
{
    QString digits = QString::fromStdString(text);
    if (digits.startsWith(QLatin1Char('@'))) {
        return file(option, digits.mid(1));
    }
    static const QRegularExpression blanks(QStringLiteral("[\\s:]+"));
    static const QRegularExpression pairs(QStringLiteral("^([0-9a-fA-F]{2})+$"));
    digits.remove(blanks);
    if (!pairs.match(digits).hasMatch()) {
        throw BadInput(QStringLiteral("%1: \"%2\" is no block: give hexadecimal digits in pairs, "
                                      "like 00ff10, or @FILE")
                           .arg(option, QString::fromStdString(text).left(40)));
    }
    return QByteArray::fromHex(digits.toLatin1());
}

QByteArray typed::file(const QString& option, const QString& path)
{
    QFile file(path);
    const bool opened = path == QLatin1String("-")
                            ? file.open(stdin, QIODevice::ReadOnly)
                            : !QFileInfo(path).isDir() && file.open(QIODevice::ReadOnly);
    if (!opened) {
        throw BadInput(QStringLiteral("%1: \"%2\" cannot be read: %3: give a file, or - for "
                                      "standard input")
                           .arg(option, path,
                                QFileInfo(path).isDir() ? QStringLiteral("it is a directory")
                                                        : file.errorString()));
    }
    QByteArray content = file.read(mostFile + 1);
    if (content.size() > mostFile) {
        throw BadInput(QStringLiteral("%1: \"%2\" has more than %3 bytes: give a shorter one")
                           .arg(option, path)
                           .arg(mostFile));
    }
    return content;
}
