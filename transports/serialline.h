// SPDX-License-Identifier: MIT
#pragma once

#include "icorebase.h"
#include "replystreamparser.h"

#include <QByteArray>
#include <QSerialPort>

#include <memory>

class biz_CMDSWork;

/// What the serial transports have in common: opening, closing, writing, reading and the port's
/// errors. A line that differs adds its frames and its replies.
///
/// | state     | port   | parser  | begins with                       | ends with              |
/// |-----------|--------|---------|-----------------------------------|------------------------|
/// | created   | closed | none    | construction, failed open, close  | open                   |
/// | open      | open   | running | open                              | close, open, lost port |
/// | port lost | closed | running | handleError with a resource error | open                   |
///
/// The object lives in the thread that made it, which must run a Qt event loop: bytes are read
/// there. setDeviceType and clearQueue may be called from any thread, the operations of
/// ReplyStreamParser as stated there, the others from the owner's thread only. It may be destroyed
/// in any state.
///
/// A device that goes away makes the port report errors for as long as it is open, and nothing here
/// acts on them by itself. A host should connect them, so that the port closes then:
///
///     connect(&line->port(), &QSerialPort::errorOccurred, line, &Core_SerialPort::handleError);
class CORE_MANAGE_EXPORT SerialLine : public ICoreBase, public ReplyStreamParser
{
public:
    ~SerialLine() override;

    void setDeviceIP(QString ip) override; ///< does nothing
    void setPort(int port) override;       ///< does nothing
    void clearQueue() override;

    /// Opens the port and starts the parser. What is open is closed first, and a parser that a lost
    /// port has left is stopped; the receive buffer is empty then. False, with the port closed and
    /// no parser, if the port cannot be opened or the system refuses the thread.
    bool openSerialPort(QString portName, QSerialPort::BaudRate baudRate,
                        QSerialPort::StopBits stopBits, QSerialPort::Parity parity,
                        QSerialPort::FlowControl flowControl,
                        QSerialPort::DataBits dataBits) override;

    /// Stops the parser, closes the port and empties the receive buffer. Takes as long as the
    /// parser waits for a block, at most 600 ms; a parser that the host keeps waiting for a lock is
    /// left behind after a second, with what it received. Does nothing while the port is closed.
    void closeSerialPort() override;

    bool openUSB(unsigned short vendorId, unsigned short productId) override; ///< false
    void closeUSB() override;                                                 ///< does nothing
    void setDeviceType(model_GlobalEnum::DeviceType type) override;

    /// The port, for a host that watches its errors. It is the line that opens, closes, reads and
    /// writes it.
    QSerialPort& port() { return *serialPort; }

    /// The frame of a record.
    virtual QByteArray produceCmds(model_Protocoldata record) = 0;

    /// Writes one frame to the port, without waiting for the line, and logs the outcome. Does
    /// nothing while the port is closed.
    void sendComData(QByteArray data);

protected:
    explicit SerialLine(std::shared_ptr<ReplyStream> stream);

    void sendRecord(void* parameters); ///< encodes the record behind the pointer and writes it

    /// Closes the port on a resource error, and on the read error that a line gives which has hung
    /// up.
    void closeLost(QSerialPort::SerialPortError error);

    /// Moves everything that the port has received to the receive buffer; drops it while bBaseFlag
    /// is false. \a seen, if any, is called with each chunk first.
    void receive(void (*seen)(const QString& portName, const QByteArray& chunk) = nullptr);

    /// Logs what became of a frame: \a written is what the port returned. A partial write is not
    /// reported.
    static void reportWritten(qint64 written, const QByteArray& frame);

private:
    /// Stops the parser, closes the port, empties the receive buffer.
    void shut(std::chrono::milliseconds patience);

    std::unique_ptr<QSerialPort> serialPort;
    std::shared_ptr<biz_CMDSWork> cmdsWork; // shared with the threads of clearQueue
};
