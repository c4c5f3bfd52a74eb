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
    char* out = frame.data();
    // ch5 goes before ch4: endpoints expect it there.
    for (const char byte :
         {record.ch2, record.ch3, record.ch5, record.ch4, record.ch7, record.ch8}) {
        *out++ = byte;
    }
    if (dataSize > 0) {
        std::memcpy(out, record.arryData.constData(), static_cast<std::size_t>(dataSize));
        out += dataSize;
    }
    *out++ = record.ch9;
    *out = record.ch10;
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
