// SPDX-License-Identifier: MIT
#include "core_usb.h"

#include "biz_cmdswork.h"
#include "callerrecord.h"
#include "commandframe.h"
#include "debugline.h"
#include "hidhandle.h"
#include "replyqueue.h"
#include "sendreport.h"
#include "textreplystream.h"
#include "usbreader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <thread>

namespace
{

constexpr TextReplyValues replyValues{std::chrono::milliseconds(20),
                                      "USB",
                                      false,
                                      2,
                                      21,
                                      false,
                                      "Core_USB::getArrayData   dataStr==",
                                      "1CheckBlock default:",
                                      "2CheckBlock default:",
                                      "3CheckBlock default:"};

constexpr std::chrono::milliseconds closePause{100};
constexpr int sentByFeatures = 0x400000;
constexpr unsigned short updateVendor = 0x04B4;
constexpr int reportData = HidHandle::reportLength - 1;

constexpr int codeOffset = 6; // the digits of CMD and DAT1 in a frame
constexpr int codeLength = 4;
constexpr std::array<const char*, 7> updateCodes{"9AA0", "9AA2", "9AA4", "9AA6",
                                                 "9AA8", "9AAA", "9AAC"};

bool isUpdateCommand(const QByteArray& frame)
{
    const QByteArray code = frame.mid(codeOffset, codeLength).toUpper();
    return std::any_of(updateCodes.begin(), updateCodes.end(),
                       [&code](const char* update) { return code == update; });
}

void logSuccess(const char* remaining, int size)
{
    const auto length = qstrnlen(remaining, static_cast<uint>(size));
    reportSend(true, nullptr, QString::fromLatin1(remaining, static_cast<int>(length)));
}

using Logger = void (*)(const char* remaining, int size);

// Writes a frame whose first report takes up to firstLength bytes of it and each other up to 64.
// Success is told to the logger, if any, with what was left of the frame before the report.
void writeReports(HidHandle& device, const QByteArray& frame, int firstLength, Logger logger)
{
    const char* remaining = frame.constData();
    const char* const end = remaining + frame.size();
    int longest = firstLength;
    while (remaining != end) {
        const int size = static_cast<int>(end - remaining);
        const int length = qMin(size, longest);
        std::array<unsigned char, HidHandle::reportLength> report{};
        std::memcpy(&report[1], remaining, static_cast<std::size_t>(length));
        if (!device.write(report.data())) {
            reportSend(false, sendFailedLine, QString());
            return;
        }
        if (logger != nullptr) {
            logger(remaining, size);
        }
        remaining += length;
        longest = reportData;
    }
}

} // namespace

Core_USB::Core_USB()
    : ReplyStreamParser(std::make_shared<TextReplyStream>(replyValues)),
      cmdsWork(std::make_shared<biz_CMDSWork>())
{
}

Core_USB::~Core_USB()
{
    Core_USB::closeUSB();
}

void Core_USB::setDeviceIP(QString /*ip*/) {}

void Core_USB::setPort(int /*port*/) {}

void Core_USB::clearQueue()
{
    replyqueue::clearElsewhere(cmdsWork);
}

bool Core_USB::openSerialPort(QString /*portName*/, QSerialPort::BaudRate /*baudRate*/,
                              QSerialPort::StopBits /*stopBits*/, QSerialPort::Parity /*parity*/,
                              QSerialPort::FlowControl /*flowControl*/,
                              QSerialPort::DataBits /*dataBits*/)
{
    return false;
}

void Core_USB::closeSerialPort() {}

bool Core_USB::openUSB(unsigned short vendorId, unsigned short productId)
{
    const std::lock_guard lock(lifecycleLock);
    closeDevice();
    const auto opened = HidHandle::open(vendorId, productId);
    if (opened == nullptr) {
        return false;
    }
    noteIds(vendorId, productId);
    return startWorkers(opened);
}

void Core_USB::closeUSB()
{
    const std::lock_guard lock(lifecycleLock);
    closeDevice();
}

// Also pauses while nothing is open: the device may need the time between two opens.
void Core_USB::closeDevice()
{
    const auto closed = currentReader();
    if (closed == nullptr) {
        std::this_thread::sleep_for(closePause);
        return;
    }
    setReader(nullptr);
    closed->stop();
    closed->device()->close();
    const auto end = std::chrono::steady_clock::now() + closePause;
    stopParsing(closePause);
    std::this_thread::sleep_until(end);
    stream()->received().clear();
}

bool Core_USB::startWorkers(const std::shared_ptr<HidHandle>& opened)
{
    const auto next = std::make_shared<UsbReader>(opened, stream());
    if (!startParsing()) {
        return false;
    }
    if (!UsbReader::start(next)) {
        stopParsing(closePause);
        return false;
    }
    setReader(next);
    return true;
}

void Core_USB::noteIds(unsigned short vendorId, unsigned short productId)
{
    if (vendorId != updateVendor) {
        return;
    }
    switch (productId) {
    case 0x1008:
        bPid1008 = true;
        break;
    case 0x100A:
        bPid100A = true;
        break;
    case 0x100C:
        bPid100C = true;
        break;
    default:
        break;
    }
}

bool Core_USB::isUpdateDevice() const
{
    return bPid1008 || bPid100A || bPid100C;
}

std::shared_ptr<UsbReader> Core_USB::currentReader() const
{
    const std::lock_guard lock(readerLock);
    return reader;
}

void Core_USB::setReader(std::shared_ptr<UsbReader> next)
{
    const std::lock_guard lock(readerLock);
    reader.swap(next);
}

std::shared_ptr<HidHandle> Core_USB::device() const
{
    const auto working = currentReader();
    return working == nullptr ? nullptr : working->device();
}

void Core_USB::setDeviceType(model_GlobalEnum::DeviceType type)
{
    setOriginType(type);
}

void Core_USB::td_readPendingDatagrams()
{
    if (const auto working = currentReader()) {
        working->read();
    }
}

QByteArray Core_USB::produceCmds(model_Protocoldata record)
{
    return commandframe::encodeText(record);
}

QByteArray Core_USB::changeData(QByteArray bytes)
{
    return commandframe::toText(bytes);
}

void Core_USB::sendDatatoDevice(void* parameters)
{
    const auto record = callerRecord<model_Protocoldata>(parameters);
    if (!record) {
        return;
    }
    const QByteArray frame = produceCmds(*record);
    if (isUpdateDevice() && isUpdateCommand(frame)) {
        sendUSBData_Update_Norvix(frame);
        return;
    }
    sendUSBData(frame);
    qCDebug(debugLine) << textWithBytes("Send usb data:", frame.left(commandframe::textLength));
}

void Core_USB::sendDatatoDeviceByFeatures(void* parameters)
{
    const auto record = callerRecord<model_Protocoldata>(parameters);
    if (record && record->featureCode == sentByFeatures) {
        sendDatatoDevice(parameters);
    }
}

void Core_USB::sendDatatoDeviceForSysPlan(void* /*parameters*/) {}

void Core_USB::sendUSBData(QByteArray data)
{
    if (const auto open = device()) {
        writeReports(*open, data, reportData, logSuccess);
    }
}

void Core_USB::sendUSBData_Update_Norvix(QByteArray data)
{
    if (const auto open = device()) {
        const bool isSplit = data.size() >= reportData;
        writeReports(*open, data, isSplit ? commandframe::textLength : reportData, nullptr);
    }
}
