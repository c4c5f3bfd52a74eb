// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "biz_osd_cmdswork.h"
#include "utility_manage.h"

#include <algorithm>
#include <cstdlib>

std::mutex biz_CMDSWork::HexCmdlock;
bool biz_CMDSWork::bRetFlag = false;
std::mutex biz_CMDSWork::receiveHexCmdlock;
std::deque<model_Protocoldata> biz_CMDSWork::receivequeueHexCmd;
std::atomic<int> biz_CMDSWork::cleared{0};
std::atomic<int> Utility_Manage::linesWritten{0};

// What a new record holds is the host's own affair.
model_Protocoldata::model_Protocoldata()
    : strKey("key"), bKeyFlag(0x11), strKey2("key2"), HEAD(0x11), aux1(0x1111), aux2(0x1111),
      aux3(0x11), aux4(0x1111), aux5(0x1111), aux6(0x1111), ADDR(0x11), CMD(0x11), DAT1(0x11),
      DAT2(0x11), DAT3(0x11), DAT4(0x11), CHKSUM(0x11), aux7(0x11), strReply("reply"),
      arryDatablock("block"), sendMode(0x11), featureCode(0x11)
{
}
model_Protocoldata::model_Protocoldata(const model_Protocoldata& other) = default;
model_Protocoldata& model_Protocoldata::operator=(const model_Protocoldata& other) = default;
model_Protocoldata::~model_Protocoldata() = default;

biz_CMDSWork::biz_CMDSWork()
{
    marks.fill(0x1234);
}
biz_CMDSWork::~biz_CMDSWork()
{
    if (!isWhole()) {
        std::abort();
    }
}
bool biz_CMDSWork::isWhole() const
{
    return std::count(marks.begin(), marks.end(), 0x1234) == static_cast<long>(marks.size());
}
void biz_CMDSWork::clearQueue()
{
    const std::lock_guard lock(receiveHexCmdlock);
    receivequeueHexCmd.clear();
    cleared += isWhole() ? 1 : 0;
}

void biz_Osd_CMDSWork::addToReceiveQueue(model_OsdParam /*record*/) {}

void Utility_Manage::writeLog(QString /*text*/)
{
    ++linesWritten;
}
short Utility_Manage::combineTwoByte(unsigned char first, unsigned char second)
{
    return static_cast<short>(second * 256 + first);
}
unsigned char Utility_Manage::getHighByte(unsigned short value)
{
    return static_cast<unsigned char>(value >> 8);
}
unsigned char Utility_Manage::getLowByte(unsigned short value)
{
    return static_cast<unsigned char>(value & 0xff);
}
model_GlobalEnum::DeviceType Utility_Manage::getDeviceType()
{
    return model_GlobalEnum::PanelUnit;
}
