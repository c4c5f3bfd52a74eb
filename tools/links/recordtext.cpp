// SPDX-License-Identifier: MIT
#include "recordtext.h"

#include "commandframe.h"
#include "osdframe.h"

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

std::vector<Field> fieldsOf(const model_OsdParam& osd)
{
    std::vector<Field> all;
    const auto add = [&all](const char* name, char byte) {
        all.push_back({name, static_cast<quint8>(byte), 2});
    };
    add("ch2", osd.ch2);
    add("ch3", osd.ch3);
    add("ch5", osd.ch5); // the frame's order
    add("ch4", osd.ch4);
    add("ch7", osd.ch7);
    add("ch8", osd.ch8);
    add("ch9", osd.ch9);
    add("ch10", osd.ch10);
    return all;
}

std::vector<Field> fieldsOf(const Command& command, FieldSet fields)
{
    if (fields == FieldSet::OsdFrame) {
        return fieldsOf(command.osd);
    }
    const model_Protocoldata& record = command.record;
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

void addOrigin(Reply& reply)
{
    reply.json.insert(QStringLiteral("from"), reply.from);
    reply.json.insert(QStringLiteral("time"),
                      QDateTime::currentDateTime().toString(Qt::ISODateWithMs));
}

bool isPrintable(char c)
{
    return c >= ' ' && c <= '~';
}

} // namespace

QByteArray recordtext::frame(const Command& command, FieldSet fields)
{
    switch (fields) {
    case FieldSet::BinaryHead:
        return commandframe::encodeBinary(command.record);
    case FieldSet::OsdFrame:
        return osdframe::encode(command.osd);
    case FieldSet::TextBody:
        break;
    }
    return commandframe::encodeText(command.record);
}

const QByteArray& recordtext::block(const Command& command, FieldSet fields)
{
    return fields == FieldSet::OsdFrame ? command.osd.arryData : command.record.arryDatablock;
}

Command recordtext::osdCommand(const QByteArray& frame)
{
    const QByteArray tail = frame.right(osdframe::tailLength);
    Command command;
    char* const head[osdframe::headLength] = {&command.osd.ch2, &command.osd.ch3, &command.osd.ch5,
                                              &command.osd.ch4, &command.osd.ch7, &command.osd.ch8};
    for (int i = 0; i < osdframe::headLength; ++i) {
        *head[i] = frame.at(i);
    }
    command.osd.arryData =
        frame.mid(osdframe::headLength, frame.size() - osdframe::headLength - osdframe::tailLength);
    command.osd.ch9 = tail.at(0);
    command.osd.ch10 = tail.at(1);
    return command;
}

QString recordtext::line(const Command& command, FieldSet fields)
{
    QStringList words;
    for (const Field& field : fieldsOf(command, fields)) {
        words << QStringLiteral("%1 %2")
                     .arg(QLatin1String(field.name))
                     .arg(field.value, field.digits, 16, QLatin1Char('0'));
    }
    return words.join(QLatin1Char(' '));
}

QJsonObject recordtext::json(const Command& command, FieldSet fields)
{
    QJsonObject object;
    for (const Field& field : fieldsOf(command, fields)) {
        object.insert(QString::fromLatin1(field.name).toLower(), field.value);
    }
    const QByteArray& bytes = block(command, fields);
    const QString name =
        fields == FieldSet::OsdFrame ? QStringLiteral("data") : QStringLiteral("block");
    object.insert(name + QStringLiteral("_length"), bytes.size());
    if (!bytes.isEmpty()) {
        object.insert(name, QString::fromLatin1(bytes.toHex()));
    }
    return object;
}

Reply recordtext::reply(const model_Protocoldata& record, FieldSet fields)
{
    Command received;
    received.record = record;
    Reply reply;
    reply.from = record.strKey2;
    reply.block = record.arryDatablock;
    reply.line = line(received, fields);
    if (!reply.from.isEmpty()) {
        reply.line.prepend(reply.from + QLatin1Char(' '));
    }
    if (!reply.block.isEmpty()) {
        reply.line += QLatin1Char(' ') + blockSummary(reply.block);
    }
    reply.json = json(received, fields);
    addOrigin(reply);
    return reply;
}

Reply recordtext::reply(const model_OsdParam& acknowledgement)
{
    Reply reply;
    reply.from = acknowledgement.strIP;
    const auto status = static_cast<quint8>(acknowledgement.arryData.back());
    reply.line = QStringLiteral("%1 OK %2").arg(reply.from).arg(status, 2, 16, QLatin1Char('0'));
    reply.json.insert(QStringLiteral("acknowledgement"),
                      QString::fromLatin1(acknowledgement.arryData.toHex()));
    reply.json.insert(QStringLiteral("status"), status);
    addOrigin(reply);
    return reply;
}

QString recordtext::blockSummary(const QByteArray& block, const char* name)
{
    if (block.isEmpty()) {
        return {};
    }
    return QStringLiteral("%1 %2 bytes: %3%4")
        .arg(QLatin1String(name))
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
