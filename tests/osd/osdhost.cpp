// SPDX-License-Identifier: MIT
#include "osdhost.h"

#include "biz_osd_cmdswork.h"

#include <algorithm>

std::size_t osdhost::size()
{
    const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
    return biz_Osd_CMDSWork::receivequeueOsd.size();
}

std::vector<model_OsdParam> osdhost::records()
{
    const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
    return {biz_Osd_CMDSWork::receivequeueOsd.begin(), biz_Osd_CMDSWork::receivequeueOsd.end()};
}

QByteArray osdhost::bytes()
{
    QByteArray thirds;
    for (const model_OsdParam& record : records()) {
        thirds.append(record.arryData.mid(2, 1));
    }
    std::sort(thirds.begin(), thirds.end());
    return thirds;
}

model_OsdParam osdhost::command(const QString& ip, char ch2, const QByteArray& data)
{
    model_OsdParam record;
    record.ch0 = 0;
    record.ch1 = 1;
    record.ch2 = ch2;
    record.ch3 = 3;
    record.ch4 = 4;
    record.ch5 = 5;
    record.ch6 = 6;
    record.ch7 = 7;
    record.ch8 = 8;
    record.ch9 = 9;
    record.ch10 = 10;
    record.strIP = ip;
    record.arryData = data;
    return record;
}
