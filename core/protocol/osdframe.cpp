// SPDX-License-Identifier: MIT
#include "osdframe.h"

#include <cstring>

namespace
{

constexpr char acknowledgedCh4 = static_cast<char>(0xff);

} // namespace

QByteArray osdframe::encode(const model_OsdParam& record)
{
    const int dataSize = record.arryData.size();
    QByteArray frame(headLength + dataSize + tailLength, Qt::Uninitialized);
    char* const head = frame.data();
    // ch5 goes before ch4: endpoints expect it there.
    head[0] = record.ch2;
    head[1] = record.ch3;
    head[2] = record.ch5;
    head[3] = record.ch4;
    head[4] = record.ch7;
    head[5] = record.ch8;
    char* const data = head + headLength;
    if (dataSize > 0) {
        std::memcpy(data, record.arryData.constData(), static_cast<std::size_t>(dataSize));
    }
    data[dataSize] = record.ch9;
    data[dataSize + 1] = record.ch10;
    return frame;
}

model_OsdParam osdframe::acknowledgement(const QString& ip, const QByteArray& bytes)
{
    model_OsdParam record;
    record.strIP = ip;
    record.arryData = bytes;
    record.ch4 = acknowledgedCh4;
    return record;
}
