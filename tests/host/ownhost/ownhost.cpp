// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "biz_osd_cmdswork.h"
#include "utility_manage.h"

std::mutex biz_CMDSWork::HexCmdlock;
bool biz_CMDSWork::bRetFlag = false;
std::mutex biz_CMDSWork::receiveHexCmdlock;
std::deque<model_Protocoldata> biz_CMDSWork::receivequeueHexCmd;
int biz_CMDSWork::cleared = 0;
int Utility_Manage::linesWritten = 0;

model_Protocoldata::model_Protocoldata()
    : bKeyFlag(0), HEAD(0), aux1(0), aux2(0), aux3(0), aux4(0), aux5(0), aux6(0), ADDR(0), CMD(0),
      DAT1(0), DAT2(0), DAT3(0), DAT4(0), CHKSUM(0), aux7(0), sendMode(0), featureCode(0)
{
}
model_Protocoldata::model_Protocoldata(const model_Protocoldata& other) = default;
model_Protocoldata& model_Protocoldata::operator=(const model_Protocoldata& other) = default;
model_Protocoldata::~model_Protocoldata() = default;

biz_CMDSWork::biz_CMDSWork() = default;
biz_CMDSWork::~biz_CMDSWork() = default;
void biz_CMDSWork::clearQueue()
{
    const std::lock_guard lock(receiveHexCmdlock);
    receivequeueHexCmd.clear();
    ++cleared;
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
