// SPDX-License-Identifier: MIT
#include "core_usb.h"

#include "callerrecord.h"
#include "commandframe.h"
#include "hidhandle.h"
#include "linktap.h"
#include "sendreport.h"
#include "textreplyformat.h"
#include "updatecommands.h"

#include <algorithm>
#include <thread>

namespace
{

constexpr TextReplyValues usbValues()
{
    TextReplyValues values;
    values.interval = std::chrono::milliseconds(20);
    values.origin = "USB";
    values.namesBlockReplies = false;
    values.mark = 2;
    values.immediateMark = 21;
    values.hasShortBlockA = false;
    values.decodeFailure = "Core_USB::getArrayData   dataStr==";
    values.announcedFailure = "1CheckBlock default:";
    values.fixedAFailure = "2CheckBlock default:";
    values.fixedBFailure = "3CheckBlock default:";
    return values;
}

constexpr TextReplyFormat usbReplies(usbValues());

constexpr std::chrono::milliseconds closePause{100};
constexpr int sentByFeatures = 0x400000;
constexpr int reportData = HidHandle::reportLength - 1;

constexpr int codeOffset = 6; // the digits of CMD and DAT1 in a frame
constexpr int codeLength = 4;

// Writes a frame whose first report takes up to firstLength bytes of it and each other up to 64.
void writeReports(HidHandle& device, const LinkTap& tap, const QByteArray& frame, int firstLength,
                  bool logsSuccess)
{
    QByteArray::size_type length = firstLength;
    for (QByteArray::size_type start = 0; start < frame.size();
         start += length, length = reportData) {
        const QByteArray data = frame.mid(start, length);
        const bool isSent = device.write(data);
        tap.tell(isSent ? LinkTap::Kind::Sent : LinkTap::Kind::SendFailed, data);
        if (!isSent) {
            reportSend(false, sendFailedLine, QString());
            return;
        }
        if (logsSuccess) {
            const auto zero = frame.indexOf('\0', start);
            const QByteArray rest = frame.mid(start, zero < 0 ? zero : zero - start);
            reportSend(true, nullptr, QString::fromLatin1(rest));
        }
    }
}

} // namespace

Core_USB::Core_USB() : StreamLink(usbReplies) {}

Core_USB::~Core_USB()
{
    Core_USB::closeUSB();
}

bool Core_USB::openUSB(unsigned short vendorId, unsigned short productId)
{
    bool isClosed = false;
    bool isOpen = false;
    {
        const std::lock_guard lock(lifecycleLock);
        isClosed = closeDevice();
        isOpen = openDevice(vendorId, productId);
    }
    if (isClosed) {
        tap->tell(LinkTap::Kind::Closed);
    }
    if (isOpen) {
        tap->tell(LinkTap::Kind::Opened);
    }
    return isOpen;
}

bool Core_USB::openDevice(unsigned short vendorId, unsigned short productId)
{
    const auto opened = HidHandle::open(vendorId, productId);
    if (opened == nullptr) {
        return false;
    }
    const auto* const end = updatecommands::products.end();
    if (vendorId == updatecommands::vendor &&
        std::find(updatecommands::products.begin(), end, productId) != end) {
        takesUpdates = true;
    }
    if (!startParsing()) {
        return false;
    }
    if (!opened->token.start(
            [opened, to = stream()] { opened->readAll(to->received, *to->tap); })) {
        stopParsing(closePause, Counts::AllTime);
        return false;
    }
    std::atomic_store(&hidDev, opened);
    return true;
}

void Core_USB::closeUSB()
{
    bool isClosed = false;
    {
        const std::lock_guard lock(lifecycleLock);
        isClosed = closeDevice();
    }
    if (isClosed) {
        tap->tell(LinkTap::Kind::Closed);
    }
}

// Also pauses while nothing is open: the device may need the time between two opens.
bool Core_USB::closeDevice()
{
    const auto closed = std::atomic_exchange(&hidDev, {});
    if (closed == nullptr) {
        std::this_thread::sleep_for(closePause);
        return false;
    }
    closed->close();
    const auto end = std::chrono::steady_clock::now() + closePause;
    stopParsing(closePause, Counts::AllTime);
    std::this_thread::sleep_until(end);
    stream()->received.clear();
    return true;
}

void Core_USB::td_readPendingDatagrams()
{
    if (const auto open = std::atomic_load(&hidDev)) {
        open->readAll(stream()->received, *tap);
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

void Core_USB::sendDatatoDeviceByFeatures(void* parameters)
{
    const auto record = callerRecord<model_Protocoldata>(parameters);
    if (record && record->featureCode == sentByFeatures) {
        sendDatatoDevice(parameters);
    }
}

bool Core_USB::writeFrame(const QByteArray& frame)
{
    const QByteArray code = frame.mid(codeOffset, codeLength).toLower();
    const auto* const end = updatecommands::codes.end();
    const bool isUpdate =
        takesUpdates && std::find(updatecommands::codes.begin(), end, code) != end;
    if (isUpdate) {
        sendUSBData_Update_Norvix(frame);
    } else {
        sendUSBData(frame);
    }
    return !isUpdate;
}

void Core_USB::sendUSBData(QByteArray data)
{
    if (const auto open = std::atomic_load(&hidDev)) {
        writeReports(*open, *tap, data, reportData, true);
    }
}

void Core_USB::sendUSBData_Update_Norvix(QByteArray data)
{
    if (const auto open = std::atomic_load(&hidDev)) {
        const bool isSplit = data.size() >= reportData;
        writeReports(*open, *tap, data, isSplit ? commandframe::textLength : reportData, false);
    }
}
