// SPDX-License-Identifier: MIT
#include "serialline.h"

#include "debugline.h"
#include "linktap.h"
#include "processend.h"
#include "replystream.h"
#include "sendreport.h"

#include <QVariant>

#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A host that keeps the parser for longer may be waiting for the close.
constexpr milliseconds hostPatience{1000};

constexpr milliseconds roomPause{5};

// Bytes that the port reads ahead of the receive buffer.
constexpr int readAhead = 32 * 1024;

// The close waits no longer for the line to take frames that are not logged as sent.
constexpr milliseconds unsentPatience{1000};

// A line that has taken nothing for this long is held by flow control. The kernel would wait 30 s
// for it; with this limit and the parser's last pass the close takes less than a second.
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

// Closes the line behind its port's back: what the port does to the descriptor then, and its own
// close, go to nothing.
void closeLine(int descriptor)
{
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ioctl(descriptor, TIOCNXCL); // somebody may hold the line open
    dup3(nothing, descriptor, O_CLOEXEC);
    ::close(nothing);
}

} // namespace

SerialLine::SerialLine(const ReplyFormat& replies) : StreamLink(replies)
{
    serialPort.setReadBufferSize(readAhead);
    // An adapter changes its speed at once, also under the frames that it has not sent yet. (Qt 5
    // has a property for it, whose setter is deprecated; see closePort for Qt 6.)
    serialPort.setProperty("settingsRestoredOnClose", QVariant(false));
    lookAgain.setSingleShot(true);
    lookAgain.setInterval(roomPause);
    lookAgain.callOnTimeout([this] {
        write();
        receive();
    });
}

SerialLine::~SerialLine()
{
    serialPort.disconnect(this);
    shut();
}

void SerialLine::shut()
{
    stopParsing(hostPatience, Counts::TimeInTheHost);
    closePort();
    stream()->received.clear();
}

// A closed port is not closed again: that would make it report an error.
void SerialLine::closePort(LinkEvent::Kind told)
{
    if (serialPort.isOpen()) {
        finishWriting();
    }
    dropPending();
    lookAgain.stop();
    if (serialPort.isOpen()) { // the log may have closed it
        if (QT_VERSION_MAJOR >= 6) {
            closeLine(serialPort.handle()); // before the port restores the settings
        }
        serialPort.close();
        tap->tell(told);
    }
}

bool SerialLine::openSerialPort(QString portName, QSerialPort::BaudRate baudRate,
                                QSerialPort::StopBits stopBits, QSerialPort::Parity parity,
                                QSerialPort::FlowControl flowControl,
                                QSerialPort::DataBits dataBits)
{
    if (serialPort.isOpen() || isParsing()) {
        if (!bBaseFlag) {
            stopParsing(milliseconds::zero(), Counts::AllTime); // the host does not want to wait
        }
        shut();
    }
    serialPort.setPortName(portName);
    stream()->setOriginName(serialPort.portName());
    serialPort.setBaudRate(baudRate, QSerialPort::AllDirections);
    serialPort.setDataBits(dataBits);
    serialPort.setParity(parity);
    serialPort.setStopBits(stopBits);
    serialPort.setFlowControl(flowControl);
    if (!serialPort.open(QIODevice::ReadWrite)) {
        return false;
    }
    if (!startParsing()) {
        closePort();
        return false;
    }
    tap->tell(LinkEvent::Kind::Opened);
    return true;
}

void SerialLine::closeSerialPort()
{
    if (serialPort.isOpen()) {
        shut();
    }
}

bool SerialLine::writeFrame(const QByteArray& frame)
{
    sendComData(frame);
    return true;
}

void SerialLine::sendComData(QByteArray data)
{
    if (!serialPort.isOpen()) {
        return;
    }
    if (unwritten > ReceiveBuffer::limit) {
        tap->tell(LinkEvent::Kind::SendFailed, data);
        reportSend(false, sendFailedLine, QString());
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
    while (!pending.empty() && serialPort.isOpen()) {
        const char* const rest = pending.front().constData() + written;
        const qint64 left = pending.front().size() - written;
        const auto size = ::write(serialPort.handle(), rest, static_cast<std::size_t>(left));
        if (size < 0 && errno == EINTR) {
            continue;
        }
        const bool failed = size < 0 && errno != EAGAIN;
        const qint64 taken = qMax(qint64{0}, qint64{size});
        if (taken > 0) {
            tap->tell(LinkEvent::Kind::Sent, rest, taken);
        }
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
    if (!sent) {
        tap->tell(LinkEvent::Kind::SendFailed, frame);
    }
    // Last: the log may send or close.
    reportSend(sent, sent ? sentLine : sendFailedLine, textWithBytes("", frame));
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
    qint64 before = 0;
    for (auto now = start;; now = Clock::now()) {
        write(); // also behind a long pause between two looks, in which the line may have got room
        if (now - start > unsentPatience) {
            dropPending();
        }
        const qint64 left = unwritten + queuedForLine(serialPort.handle());
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
    if (queuedForLine(serialPort.handle()) > 0) {
        // Some drivers cannot drop what they have: it goes out then, whether the device wants it
        // or not.
        tcflush(serialPort.handle(), TCOFLUSH);
        serialPort.setFlowControl(QSerialPort::NoFlowControl);
    }
}

void SerialLine::closeLost(QSerialPort::SerialPortError error)
{
    // Reading a line that has hung up gives an end of file, which the port reports as this or that
    // error, by what an earlier system call has left in errno.
    const bool isLost = error == QSerialPort::ResourceError ||
                        (error == QSerialPort::ReadError && hasHungUp(serialPort.handle()));
    if (isLost) {
        closePort(LinkEvent::Kind::Lost); // the parser runs on: the next open stops it
    }
}

// Of a line that has hung up no more can come than the system holds already.
void SerialLine::receive()
{
    const processend::Call call;
    while (call && serialPort.bytesAvailable() > 0) {
        if (bBaseFlag && stream()->received.isFull() && !hasHungUp(serialPort.handle())) {
            lookAgain.start();
            return;
        }
        const QByteArray chunk = serialPort.readAll();
        tap->tell(LinkEvent::Kind::Received, chunk);
        if (bBaseFlag) {
            showChunk(chunk);
            appendBuffData(chunk);
        }
    }
}

void SerialLine::showChunk(const QByteArray& /*chunk*/) {}
