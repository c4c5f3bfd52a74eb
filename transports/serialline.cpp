// SPDX-License-Identifier: MIT
#include "serialline.h"

#include "biz_cmdswork.h"
#include "callerrecord.h"
#include "commandframe.h"
#include "debugline.h"
#include "replyqueue.h"
#include "replystream.h"
#include "sendreport.h"

#include <cerrno>
#include <thread>

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A host that keeps the parser for so long may be waiting for the close.
constexpr milliseconds hostPatience{1000};

constexpr milliseconds roomPause{5};

// What the port may read ahead of the receive buffer.
constexpr int readAhead = 32 * 1024;

// A frame that the log has not called sent is given so long at the close.
constexpr milliseconds unsentPatience{1000};

// A line that has taken nothing for so long is held by flow control. Closing it would wait for 30 s
// in the kernel; with this and the parser's last pass it takes less than a second.
constexpr milliseconds heldPatience{800};

bool hasHungUp(int descriptor)
{
    pollfd line{descriptor, 0, 0};
    return poll(&line, 1, 0) > 0 && (line.revents & POLLHUP) != 0;
}

// Bytes that the system and the UART have for the line; none where they do not say.
int queuedForLine(int descriptor)
{
    int queued = 0;
    ioctl(descriptor, TIOCOUTQ, &queued);
    unsigned status = TIOCSER_TEMT;
    ioctl(descriptor, TIOCSERGETLSR, &status);
    return queued + ((status & TIOCSER_TEMT) == 0 ? 1 : 0);
}

} // namespace

SerialLine::SerialLine(std::shared_ptr<ReplyStream> stream)
    : ReplyStreamParser(std::move(stream)), serialPort(std::make_unique<QSerialPort>()),
      cmdsWork(std::make_shared<biz_CMDSWork>())
{
    serialPort->setReadBufferSize(readAhead);
    // An adapter changes its speed at once, also under the frames that it has not sent yet. (The
    // property's setter is deprecated.)
    serialPort->setProperty("settingsRestoredOnClose", false);
    lookAgain.setSingleShot(true);
    lookAgain.setInterval(roomPause);
    lookAgain.callOnTimeout([this] {
        write();
        receive();
    });
}

SerialLine::~SerialLine()
{
    serialPort->disconnect(this);
    shut();
}

void SerialLine::shut()
{
    awaitParsingEnd(hostPatience);
    closePort();
    stream()->received().clear();
}

// A closed port is not closed again: that would make it report an error.
void SerialLine::closePort()
{
    if (serialPort->isOpen()) {
        finishWriting();
    }
    dropPending();
    lookAgain.stop();
    if (serialPort->isOpen()) { // the log may have closed it
        serialPort->close();
    }
}

void SerialLine::setDeviceIP(QString /*ip*/) {}

void SerialLine::setPort(int /*port*/) {}

void SerialLine::clearQueue()
{
    replyqueue::clearElsewhere(cmdsWork);
}

bool SerialLine::openSerialPort(QString portName, QSerialPort::BaudRate baudRate,
                                QSerialPort::StopBits stopBits, QSerialPort::Parity parity,
                                QSerialPort::FlowControl flowControl,
                                QSerialPort::DataBits dataBits)
{
    if (serialPort->isOpen() || isParsing()) {
        if (!bBaseFlag) {
            stopParsing(milliseconds::zero()); // the host does not want to wait for the parser
        }
        shut();
    }
    serialPort->setPortName(portName);
    setOriginName(serialPort->portName());
    serialPort->setBaudRate(baudRate, QSerialPort::AllDirections);
    serialPort->setDataBits(dataBits);
    serialPort->setParity(parity);
    serialPort->setStopBits(stopBits);
    serialPort->setFlowControl(flowControl);
    if (!serialPort->open(QIODevice::ReadWrite)) {
        return false;
    }
    if (!startParsing()) {
        closePort();
        return false;
    }
    return true;
}

void SerialLine::closeSerialPort()
{
    if (serialPort->isOpen()) {
        shut();
    }
}

bool SerialLine::openUSB(unsigned short /*vendorId*/, unsigned short /*productId*/)
{
    return false;
}

void SerialLine::closeUSB() {}

void SerialLine::setDeviceType(model_GlobalEnum::DeviceType type)
{
    setOriginType(type);
}

void SerialLine::sendRecord(void* parameters)
{
    if (const auto record = callerRecord<model_Protocoldata>(parameters)) {
        const QByteArray frame = produceCmds(*record);
        sendComData(frame);
        qCDebug(debugLine) << textWithBytes("Send data:", frame.left(commandframe::textLength));
    }
}

void SerialLine::sendComData(QByteArray data)
{
    if (!serialPort->isOpen()) {
        return;
    }
    if (unwritten > ReceiveBuffer::limit) {
        reportWritten(-1, data);
        return;
    }
    unwritten += data.size();
    pending.push_back(std::move(data));
    write();
}

// Straight to the descriptor: what QSerialPort is given stays in the process until its event loop
// runs, and is dropped by its close.
void SerialLine::write()
{
    while (!pending.empty() && serialPort->isOpen()) {
        const char* const rest = pending.front().constData() + written;
        const int left = pending.front().size() - written;
        const auto size = ::write(serialPort->handle(), rest, static_cast<std::size_t>(left));
        if (size < 0 && errno == EINTR) {
            continue;
        }
        const bool failed = size < 0 && errno != EAGAIN;
        const int taken = qMax(0, static_cast<int>(size));
        written += taken;
        unwritten -= taken;
        if (taken < left && !failed) {
            lookAgain.start();
            return;
        }
        endFrame(!failed);
    }
}

void SerialLine::endFrame(bool sent)
{
    const QByteArray frame = std::move(pending.front());
    pending.pop_front();
    unwritten -= frame.size() - written;
    written = 0;
    reportWritten(sent ? frame.size() : -1, frame); // last: the log may send or close
}

void SerialLine::dropPending()
{
    pending.clear();
    written = 0;
    unwritten = 0;
}

void SerialLine::finishWriting()
{
    const auto start = Clock::now();
    auto moved = start;
    for (qint64 before = 0;;) {
        const auto now = Clock::now();
        if (now - start > unsentPatience) {
            dropPending();
        }
        write();
        const qint64 left = unwritten + queuedForLine(serialPort->handle());
        if (left == 0) {
            return;
        }
        if (left != before) {
            before = left;
            moved = now;
        } else if (now - moved >= heldPatience) {
            break;
        }
        std::this_thread::sleep_for(roomPause);
    }
    if (queuedForLine(serialPort->handle()) > 0) {
        // Some drivers cannot drop what they have: it goes out then, whether the device wants it
        // or not.
        tcflush(serialPort->handle(), TCOFLUSH);
        serialPort->setFlowControl(QSerialPort::NoFlowControl);
    }
}

void SerialLine::reportWritten(qint64 written, const QByteArray& frame)
{
    if (written == frame.size()) {
        reportSend(true, sentLine, textWithBytes("", frame));
    } else if (written == -1) {
        reportSend(false, sendFailedLine, QString());
    }
}

void SerialLine::closeLost(QSerialPort::SerialPortError error)
{
    if (!serialPort->isOpen()) {
        return;
    }
    // Reading a line that has hung up gives an end of file, which the port reports as this or that
    // error, by what an earlier system call has left in errno.
    const bool isLost = error == QSerialPort::ResourceError ||
                        (error == QSerialPort::ReadError && hasHungUp(serialPort->handle()));
    if (isLost) {
        closePort(); // the parser runs on: the next open stops it
    }
}

// Of a line that has hung up no more can come than the system holds already.
void SerialLine::receive()
{
    while (serialPort->bytesAvailable() > 0) {
        if (bBaseFlag && stream()->received().isFull() && !hasHungUp(serialPort->handle())) {
            lookAgain.start();
            return;
        }
        const QByteArray chunk = serialPort->readAll();
        if (bBaseFlag) {
            showChunk(chunk);
            appendBuffData(chunk);
        }
    }
}

void SerialLine::showChunk(const QByteArray& /*chunk*/) {}
