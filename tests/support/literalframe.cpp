// SPDX-License-Identifier: MIT
#include "literalframe.h"

#include <QString>
#include <QVector>

namespace
{

bool decodeDigits(const QByteArray& frame, model_Protocoldata& record)
{
    const QByteArray digits = frame.mid(2, 16);
    const QString text = QString::fromLocal8Bit(digits.constData()); // up to a zero byte
    QVector<int> pieces;
    for (int position = 0; position < 16; position += 2) {
        bool parsed = false;
        const int value = text.mid(position, 2).toInt(&parsed, 16);
        pieces.append(parsed ? value : 0);
    }
    record.HEAD = static_cast<quint8>(pieces[0]);
    record.ADDR = static_cast<quint8>(pieces[1]);
    record.CMD = static_cast<quint8>(pieces[2]);
    record.DAT1 = static_cast<quint8>(pieces[3]);
    record.DAT2 = static_cast<quint8>(pieces[4]);
    record.DAT3 = static_cast<quint8>(pieces[5]);
    record.DAT4 = static_cast<quint8>(pieces[6]);
    record.CHKSUM = static_cast<quint8>((record.HEAD + record.ADDR + record.CMD + record.DAT1 +
                                         record.DAT2 + record.DAT3 + record.DAT4) %
                                        256);
    return pieces[7] == record.CHKSUM;
}

model_Protocoldata refused()
{
    model_Protocoldata record;
    record.strReply = QString::fromLatin1("");
    record.arryDatablock.clear();
    return record;
}

} // namespace

QByteArray literalframe::changeData(const QByteArray& bytes)
{
    QString text;
    text.append(QLatin1Char('<'));
    text.append(QLatin1Char('T'));
    for (int i = 0; i < bytes.size(); ++i) {
        const auto byte = static_cast<uchar>(bytes.at(i));
        text.append(QString::number(byte >> 4, 16));
        text.append(QString::number(byte & 0x0f, 16));
    }
    text.append(QLatin1Char('>'));
    return text.toLocal8Bit();
}

QByteArray literalframe::produceCmds(model_Protocoldata record)
{
    QByteArray body;
    body.append(static_cast<char>(record.HEAD));
    body.append(static_cast<char>(record.ADDR));
    body.append(static_cast<char>(record.CMD));
    body.append(static_cast<char>(record.DAT1));
    body.append(static_cast<char>(record.DAT2));
    body.append(static_cast<char>(record.DAT3));
    body.append(static_cast<char>(record.DAT4));
    record.CHKSUM = 0;
    for (int i = 0; i < body.size(); ++i) {
        record.CHKSUM = static_cast<quint8>(record.CHKSUM + static_cast<uchar>(body.at(i)));
    }
    body.append(static_cast<char>(record.CHKSUM));
    QByteArray frame = changeData(body);
    if (!record.arryDatablock.isEmpty()) {
        for (int i = 0; i < record.arryDatablock.size(); ++i) {
            frame.append(record.arryDatablock.at(i));
        }
    }
    return frame;
}

model_Protocoldata literalframe::getArrayData(QByteArray datagram)
{
    if (datagram.size() != 19) {
        return refused();
    }
    if (datagram.at(0) != '<' || datagram.at(1) != 'F') {
        return refused();
    }
    model_Protocoldata record;
    if (!decodeDigits(datagram, record)) {
        record.HEAD = 0;
        record.ADDR = 0;
        record.CMD = 0;
        record.DAT1 = 0;
        record.DAT2 = 0;
        record.DAT3 = 0;
        record.DAT4 = 0;
        record.CHKSUM = 0;
    }
    return record;
}

bool literalframe::getArrayData(QByteArray frame, model_Protocoldata* record)
{
    model_Protocoldata local;
    if (!decodeDigits(frame, local)) {
        return false;
    }
    *record = local;
    return true;
}

QByteArray literalframe::produceBinary(model_Protocoldata record)
{
    QByteArray frame;
    const auto word = [&frame](quint16 value) {
        frame.append(static_cast<char>(value / 256));
        frame.append(static_cast<char>(value % 256));
    };
    word(record.aux1);
    frame.append(static_cast<char>(record.ADDR));
    frame.append(static_cast<char>(record.aux3));
    word(record.aux4);
    word(record.aux5);
    record.aux6 = static_cast<quint16>(record.arryDatablock.size());
    word(record.aux6);
    frame.append(static_cast<char>(record.CMD));
    frame.append(static_cast<char>(record.DAT1));
    frame.append(static_cast<char>(record.DAT2));
    frame.append(static_cast<char>(record.DAT3));
    frame.append(static_cast<char>(record.DAT4));
    record.CHKSUM = 0;
    for (int i = 0; i < 15; ++i) {
        record.CHKSUM = static_cast<quint8>(record.CHKSUM + static_cast<uchar>(frame.at(i)));
    }
    frame.append(static_cast<char>(record.CHKSUM));
    if (record.aux6 != 0 && !record.arryDatablock.isEmpty()) {
        frame.append(record.arryDatablock);
    }
    return frame;
}

bool literalframe::decodeBinary(QByteArray head, model_Protocoldata* record)
{
    const auto byte = [&head](int position) {
        return position < head.size() ? static_cast<quint8>(head.at(position)) : quint8{0};
    };
    model_Protocoldata local;
    local.aux2 = static_cast<quint16>(byte(0) * 256 + byte(1));
    local.ADDR = byte(2);
    local.aux3 = byte(3);
    local.aux4 = static_cast<quint16>(byte(4) * 256 + byte(5));
    local.aux5 = static_cast<quint16>(byte(6) * 256 + byte(7));
    local.aux6 = static_cast<quint16>(byte(8) * 256 + byte(9));
    local.CMD = byte(10);
    local.DAT1 = byte(11);
    local.DAT2 = byte(12);
    local.DAT3 = byte(13);
    local.DAT4 = byte(14);
    local.CHKSUM = byte(15);
    int sum = 0;
    for (int i = 0; i < 15; ++i) {
        sum += byte(i);
    }
    if (sum % 256 != local.CHKSUM) {
        return false;
    }
    *record = local;
    return true;
}
