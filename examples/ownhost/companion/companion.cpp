// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "biz_osd_cmdswork.h"
#include "utility_manage.h"

#include <atomic>

#include <syslog.h>

std::mutex biz_CMDSWork::receiveHexCmdlock;
std::deque<model_Protocoldata> biz_CMDSWork::receivequeueHexCmd;
std::mutex biz_CMDSWork::HexCmdlock;
bool biz_CMDSWork::bRetFlag = false;

namespace
{
std::atomic<int> acknowledged{0};
}

biz_CMDSWork::biz_CMDSWork() = default;
biz_CMDSWork::~biz_CMDSWork() = default;

void biz_CMDSWork::clearQueue()
{
    const std::lock_guard queue(receiveHexCmdlock);
    receivequeueHexCmd.clear();
}

void biz_Osd_CMDSWork::addToReceiveQueue(model_OsdParam /*record*/)
{
    ++acknowledged;
}

int biz_Osd_CMDSWork::acknowledgements()
{
    return acknowledged;
}

void Utility_Manage::writeLog(QString text)
{
    for (QChar& c : text) {
        c = c.isPrint() ? c : QChar('.'); // received bytes must not begin a line of their own
    }
    syslog(LOG_INFO, "%s", text.toUtf8().constData());
}

qint16 Utility_Manage::combineTwoByte(quint8 first, quint8 second)
{
    return static_cast<qint16>(second * 256 + first);
}

quint8 Utility_Manage::getHighByte(quint16 value)
{
    return static_cast<quint8>(value >> 8);
}

quint8 Utility_Manage::getLowByte(quint16 value)
{
    return static_cast<quint8>(value & 0xff);
}

model_GlobalEnum::DeviceType Utility_Manage::getDeviceType()
{
    return model_GlobalEnum::AnyDevice;
}
