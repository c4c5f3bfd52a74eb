// SPDX-License-Identifier: MIT
#include "recordtext.h"

#include "commandframe.h"
#include "osdframe.h"

#include <algorithm>

namespace
{

constexpr int summaryBytes = 8;
constexpr int dumpWidth = 16;
constexpr int shownFrame = 64;

QString blockName(FieldSet fields)
{
    return fields == FieldSet::OsdFrame ? "data" : "block";
}

QString beginning(const QByteArray& bytes, const QString& name)
{
    return QString("%1 %2 bytes: %3%4")
        .arg(name)
        .arg(bytes.size())
        .arg(QString::fromLatin1(bytes.left(summaryBytes).toHex(' ')),
             bytes.size() > summaryBytes ? " ..." : QString());
}

void addOrigin(Reply& reply)
{
    reply.json.insert("from", reply.from);
    reply.json.insert("time", recordtext::zonedTime());
}

bool isPrintable(char c)
{
    return c >= ' ' && c <= '~';
}

} // namespace

QByteArray recordtext::frame(const Command& command, FieldSet fields)
{
    return !command.raw.isEmpty()           ? command.raw
           : fields == FieldSet::OsdFrame   ? osdframe::encode(command.osd)
           : fields == FieldSet::BinaryHead ? commandframe::encodeBinary(command.record)
                                            : commandframe::encodeText(command.record);
}

Command recordtext::framed(const Command& command, FieldSet fields)
{
    Command sent = command;
    if (fields != FieldSet::OsdFrame && command.raw.isEmpty()) {
        const QByteArray bytes = frame(command, fields);
        model_Protocoldata read;
        fields == FieldSet::BinaryHead ? commandframe::decodeBinary(bytes, read)
                                       : commandframe::decodeText(bytes, read);
        sent.record.CHKSUM = read.CHKSUM;
        sent.record.aux6 = read.aux6;
    }
    return sent;
}

const QByteArray& recordtext::block(const Command& command, FieldSet fields)
{
    return fields == FieldSet::OsdFrame ? command.osd.arryData : command.record.arryDatablock;
}

Command recordtext::command(const DeviceCommand& read, FieldSet fields)
{
    if (fields == FieldSet::OsdFrame) {
        return osdCommand(read.block);
    }
    Command command;
    model_Protocoldata& record = command.record;
    record.HEAD = read.head.head;
    record.ADDR = read.head.addr;
    record.CMD = read.head.cmd;
    record.DAT1 = read.head.dat1;
    record.DAT2 = read.head.dat2;
    record.DAT3 = read.head.dat3;
    record.DAT4 = read.head.dat4;
    record.CHKSUM = read.head.sum;
    record.aux1 = read.head.lead;
    record.aux3 = read.head.aux3;
    record.aux4 = read.head.aux4;
    record.aux5 = read.head.aux5;
    record.aux6 = read.head.blockLength;
    record.arryDatablock = read.block;
    return command;
}

Command recordtext::osdCommand(const QByteArray& frame)
{
    const auto dataLength = frame.size() - osdframe::headLength - osdframe::tailLength;
    Command command;
    command.osd.arryData = frame.mid(osdframe::headLength, dataLength);
    const QByteArray fixed = frame.left(osdframe::headLength) + frame.right(osdframe::tailLength);
    auto byte = fixed.begin();
    for (const CommandField& field : CommandField::all()) {
        if (field.isIn(FieldSet::OsdFrame)) {
            field.set(command, *byte++);
        }
    }
    return command;
}

QString recordtext::line(const Command& command, FieldSet fields)
{
    QStringList words;
    for (const CommandField& field : CommandField::all()) {
        if (field.isIn(fields)) {
            words << QString("%1 %2")
                         .arg(QLatin1String(field.name))
                         .arg(field.value(command), 2 * field.bytes(), 16, QChar('0'));
        }
    }
    return words.join(' ');
}

QJsonObject recordtext::json(const Command& command, FieldSet fields)
{
    QJsonObject object;
    for (const CommandField& field : CommandField::all()) {
        if (field.isIn(fields)) {
            object.insert(QString::fromLatin1(field.name).toLower(), field.value(command));
        }
    }
    const QByteArray& bytes = block(command, fields);
    const QString name = blockName(fields);
    object.insert(name + "_length", bytes.size());
    if (!bytes.isEmpty()) {
        object.insert(name, QString::fromLatin1(bytes.toHex()));
    }
    return object;
}

Reply recordtext::reply(const model_Protocoldata& record, FieldSet fields)
{
    const Command received{record, {}, {}, {}};
    Reply reply;
    reply.from = record.strKey2;
    reply.block = record.arryDatablock;
    reply.line = (reply.from + ' ' + summary(received, fields)).trimmed();
    reply.json = json(received, fields);
    addOrigin(reply);
    return reply;
}

Reply recordtext::reply(const model_OsdParam& acknowledgement)
{
    Reply reply;
    reply.from = acknowledgement.strIP;
    const auto status = static_cast<quint8>(acknowledgement.arryData.back());
    reply.line = QString("%1 OK %2").arg(reply.from, hex(status));
    reply.json.insert("acknowledgement", QString::fromLatin1(acknowledgement.arryData.toHex()));
    reply.json.insert("status", status);
    addOrigin(reply);
    return reply;
}

QString recordtext::summary(const Command& command, FieldSet fields)
{
    const QByteArray& bytes = block(command, fields);
    return bytes.isEmpty() ? line(command, fields)
                           : line(command, fields) + ' ' + beginning(bytes, blockName(fields));
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
        text += QString("  %1  %2  %3\n")
                    .arg(offset, 4, 16, QChar('0'))
                    .arg(QString::fromLatin1(row.toHex(' ')), -(3 * dumpWidth - 1))
                    .arg(readable);
    }
    return text;
}

QString recordtext::frameText(const QByteArray& frame)
{
    const QByteArray shown = frame.left(shownFrame);
    const QString rest =
        frame.size() > shownFrame ? QString(" ... (%1 bytes)").arg(frame.size()) : QString();
    if (std::all_of(shown.begin(), shown.end(), isPrintable)) {
        return QString::fromLatin1(shown) + rest;
    }
    if (shown.size() > commandframe::textLength && shown.startsWith("<T")) {
        return QString::fromLatin1(shown.left(commandframe::textLength)) + " + " +
               beginning(frame.mid(commandframe::textLength), "block");
    }
    return QString::fromLatin1(shown.toHex(' ')) + rest;
}

QString recordtext::hex(int byte)
{
    return QString("%1").arg(byte, 2, 16, QChar('0'));
}

QString recordtext::zonedTime(const QDateTime& time)
{
    return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

QString recordtext::timeOfDay(const QDateTime& time)
{
    return time.toString("HH:mm:ss.zzz");
}
