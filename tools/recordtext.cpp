// SPDX-License-Identifier: MIT
#include "recordtext.h"

#include "commandframe.h"

#include <QDateTime>
#include <QJsonDocument>

#include <algorithm>

namespace
{

constexpr int summaryBytes = 8;
constexpr int dumpWidth = 16;
constexpr int shownFrame = 64;

struct Field {
    const char* name;
    int value;
    int digits;
};

std::vector<Field> fieldsOf(const model_Protocoldata& record, FieldSet fields)
{
    const std::vector<Field> text{{"HEAD", record.HEAD, 2}, {"ADDR", record.ADDR, 2}};
    const std::vector<Field> binary{{"aux1", record.aux1, 4}, {"aux2", record.aux2, 4},
                                    {"ADDR", record.ADDR, 2}, {"aux3", record.aux3, 2},
                                    {"aux4", record.aux4, 4}, {"aux5", record.aux5, 4},
                                    {"aux6", record.aux6, 4}};
    std::vector<Field> all = fields == FieldSet::BinaryHead ? binary : text;
    for (const Field& field : {Field{"CMD", record.CMD, 2}, Field{"DAT1", record.DAT1, 2},
                               Field{"DAT2", record.DAT2, 2}, Field{"DAT3", record.DAT3, 2},
                               Field{"DAT4", record.DAT4, 2}, Field{"CHKSUM", record.CHKSUM, 2}}) {
        all.push_back(field);
    }
    return all;
}

bool isPrintable(char c)
{
    return c >= ' ' && c <= '~';
}

} // namespace

QByteArray recordtext::frame(const model_Protocoldata& record, FieldSet fields)
{
    return fields == FieldSet::BinaryHead ? commandframe::encodeBinary(record)
                                          : commandframe::encodeText(record);
}

QString recordtext::line(const model_Protocoldata& record, FieldSet fields)
{
    QStringList words;
    for (const Field& field : fieldsOf(record, fields)) {
        words << QStringLiteral("%1 %2")
                     .arg(QLatin1String(field.name))
                     .arg(field.value, field.digits, 16, QLatin1Char('0'));
    }
    return words.join(QLatin1Char(' '));
}

QJsonObject recordtext::json(const model_Protocoldata& record, FieldSet fields)
{
    QJsonObject object;
    for (const Field& field : fieldsOf(record, fields)) {
        object.insert(QString::fromLatin1(field.name).toLower(), field.value);
    }
    object.insert(QStringLiteral("block_length"), record.arryDatablock.size());
    if (!record.arryDatablock.isEmpty()) {
        object.insert(QStringLiteral("block"), QString::fromLatin1(record.arryDatablock.toHex()));
    }
    return object;
}

Reply recordtext::reply(const model_Protocoldata& record, FieldSet fields)
{
    Reply reply;
    reply.from = record.strKey2;
    reply.block = record.arryDatablock;
    reply.line = line(record, fields);
    if (!reply.from.isEmpty()) {
        reply.line.prepend(reply.from + QLatin1Char(' '));
    }
    if (!reply.block.isEmpty()) {
        reply.line += QLatin1Char(' ') + blockSummary(reply.block);
    }
    reply.json = json(record, fields);
    reply.json.insert(QStringLiteral("from"), reply.from);
    reply.json.insert(QStringLiteral("time"),
                      QDateTime::currentDateTime().toString(Qt::ISODateWithMs));
    return reply;
}

QString recordtext::blockSummary(const QByteArray& block)
{
    if (block.isEmpty()) {
        return {};
    }
    return QStringLiteral("block %1 bytes: %2%3")
        .arg(block.size())
        .arg(QString::fromLatin1(block.left(summaryBytes).toHex(' ')),
             block.size() > summaryBytes ? QStringLiteral(" ...") : QString());
}

QString recordtext::dump(const QByteArray& bytes)
{
    QString text;
    for (int offset = 0; offset < bytes.size(); offset += dumpWidth) {
        const QByteArray row = bytes.mid(offset, dumpWidth);
        QString readable;
        for (const char c : row) {
            readable += QLatin1Char(isPrintable(c) ? c : '.');
        }
        text += QStringLiteral("  %1  %2  %3\n")
                    .arg(offset, 4, 16, QLatin1Char('0'))
                    .arg(QString::fromLatin1(row.toHex(' ')), -(3 * dumpWidth - 1))
                    .arg(readable);
    }
    return text;
}

QString recordtext::frameText(const QByteArray& frame)
{
    const QByteArray shown = frame.left(shownFrame);
    const QString rest =
        frame.size() > shownFrame ? QStringLiteral(" ... (%1 bytes)").arg(frame.size()) : QString();
    if (std::all_of(shown.begin(), shown.end(), isPrintable)) {
        return QString::fromLatin1(shown) + rest;
    }
    if (shown.size() > commandframe::textLength && shown.startsWith("<T")) {
        return QString::fromLatin1(shown.left(commandframe::textLength)) + QLatin1String(" + ") +
               blockSummary(frame.mid(commandframe::textLength));
    }
    return QString::fromLatin1(shown.toHex(' ')) + rest;
}

QString recordtext::oneLine(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QString recordtext::timeOfDay()
{
    return QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz"));
}
