// SPDX-License-Identifier: MIT
#pragma once

#include "streamlink.h"

#include <QByteArray>
#include <QSerialPort>
#include <QTimer>

#include <deque>

/// What the serial links have in common: opening, closing, writing, reading and the port's errors.
/// A line that differs adds its frames and its replies.
///
/// | state     | port   | parser  | begins with                       | ends with              |
/// |-----------|--------|---------|-----------------------------------|------------------------|
/// | created   | closed | none    | construction, failed open, close  | open                   |
/// | open      | open   | running | open                              | close, open, lost port |
/// | port lost | closed | running | handleError with a resource error | open                   |
///
/// The object lives in the thread that made it, which must run a Qt event loop: bytes are read
/// there. The operations of StreamLink and ReplyStreamParser may be called as stated there, the
/// others from the owner's thread only. It may be destroyed in any state, which takes as long as
/// closeSerialPort.
///
/// A device that goes away makes the port report errors for as long as it is open, and nothing here
/// acts on them by itself. A host should connect them, so that the port closes then:
///
///     connect(&line->port(), &QSerialPort::errorOccurred, line, &Core_SerialPort::handleError);
class CORE_MANAGE_EXPORT SerialLine : public StreamLink
{
public:
    ~SerialLine() override;

    /// Opens the port and starts the parser. What is open is closed first, and a parser that a lost
    /// port has left is stopped; the receive buffer is empty then. False, with the port closed and
    /// no parser, if the port cannot be opened or the system refuses the thread. Blocks as
    /// closeSerialPort.
    bool openSerialPort(QString portName, QSerialPort::BaudRate baudRate,
                        QSerialPort::StopBits stopBits, QSerialPort::Parity parity,
                        QSerialPort::FlowControl flowControl,
                        QSerialPort::DataBits dataBits) override;

    /// Stops the parser, closes the port and empties the receive buffer. Takes as long as the
    /// parser needs for its last reply: a few milliseconds, or up to 600 while it waits for a block
    /// (longer where the machine gives it no time). A parser that is kept for a second by the
    /// host's lock or message handler is left behind, with what it received. What was sent goes out
    /// first; a line that takes none of it for 800 ms loses it. Does nothing while the port is
    /// closed.
    void closeSerialPort() override;

    /// The port, for a host that watches its errors. It is the line that opens, closes, reads and
    /// writes it.
    QSerialPort& port() { return serialPort; }

    /// Writes one frame to the port, without waiting for the line, and logs "Send successful" once
    /// the system has all of it. What it does not take at once follows in order while the event
    /// loop runs, and for at most a second of the close; a frame that does not get out whole is not
    /// logged. "Send failed" if the write fails, or if 16 MiB wait already. Does nothing while the
    /// port is closed.
    void sendComData(QByteArray data);

protected:
    static constexpr char shownText[] = "Send data:"; ///< the debug line of a send begins with it

    explicit SerialLine(const ReplyFormat& replies); ///< \a replies must live for ever

    /// Closes the port on a resource error, and on the read error of a line that has hung up. All
    /// other errors are ignored. The parser runs on until the next open.
    void closeLost(QSerialPort::SerialPortError error);

    /// Moves what the port has received to the receive buffer, until that is full: the rest follows
    /// when the parser has made room, and the line holds the device back meanwhile. Drops it while
    /// bBaseFlag is false.
    void receive();

private:
    virtual void showChunk(const QByteArray& chunk); ///< before it is buffered
    bool writeFrame(const QByteArray& frame) override;

    void shut(); ///< stops the parser, closes the port, empties the receive buffer
    /// Finishes writing first.
    void closePort(LinkEvent::Kind told = LinkEvent::Kind::Closed);
    void finishWriting();     ///< waits for the line as long as it takes anything
    void write();             ///< as much of the pending frames as the system takes
    void endFrame(bool sent); ///< the first pending frame has left, or never will
    void dropPending();

    QSerialPort serialPort;
    std::deque<QByteArray> pending; // frames that the system has not taken whole
    qint64 written = 0;             // bytes of the first of them
    qint64 unwritten = 0;           // bytes of all of them
    QTimer lookAgain;               // when the line or the receive buffer may have room again
};
