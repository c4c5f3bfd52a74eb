// SPDX-License-Identifier: MIT
#include "osdframe.h"

#include <algorithm>

namespace
{

constexpr char acknowledgedCh4 = static_cast<char>(0xff);

} // namespace

QByteArray osdframe::encode(const model_OsdParam& record)
{
    // ch5 goes before ch4: endpoints expect it there.
    const char head[headLength] = {record.ch2, record.ch3, record.ch5,
                                   record.ch4, record.ch7, record.ch8};
    QByteArray frame(headLength + record.arryData.size() + tailLength, Qt::Uninitialized);
    char* out = std::copy_n(head, headLength, frame.data());
    out = std::copy(record.arryData.begin(), record.arryData.end(), out);
    out[0] = record.ch9;
    out[1] = record.ch10;
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
