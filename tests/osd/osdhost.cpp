// SPDX-License-Identifier: MIT
#include "osdhost.h"

#include "biz_osd_cmdswork.h"
#include "corefactory.h"
#include "eventually.h"
#include "icoreosdbase.h"
#include "osdsimulator.h"

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

bool osdhost::settle(const QString& ip, const OsdSimulator& endpoint, char ch2)
{
    constexpr char last = 0x7f;
    const auto send = [&ip](char ch) {
        model_OsdParam record = command(ip, ch);
        CoreFactory::iOsdCore->sendDatatoDevice(&record);
    };
    const auto answers = [&ip](char ch) {
        const auto all = records();
        return std::count_if(all.begin(), all.end(), [&](const model_OsdParam& record) {
            return record.strIP == ip && record.arryData.at(2) == ch;
        });
    };
    const auto before = answers(ch2);
    const auto lastBefore = answers(last);
    const bool answered = eventually([&] {
        send(ch2);
        return eventually([&] { return answers(ch2) > before; }, std::chrono::milliseconds(20));
    });
    send(last);
    return answered && eventually([&] { return answers(last) > lastBefore; }) && eventually([&] {
               const auto all = records();
               return std::count_if(all.begin(), all.end(), [&ip](const model_OsdParam& record) {
                          return record.strIP == ip;
                      }) == endpoint.answers();
           });
}
