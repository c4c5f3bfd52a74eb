// SPDX-License-Identifier: MIT
#pragma once

#include "icorebase.h"
#include "replystreamparser.h"

#include <chrono>
#include <memory>

class biz_CMDSWork;

/// What the links have in common whose replies come as a stream: the parser's thread, the sending
/// of a record, clearQueue, and the operations that do not apply. A link adds how it opens, closes,
/// reads and writes.
class CORE_MANAGE_EXPORT StreamLink : public ICoreBase, public ReplyStreamParser
{
public:
    ~StreamLink() override; ///< clears the run flag; waits for nothing

    void setDeviceIP(QString /*ip*/) override {} ///< does nothing
    void setPort(int /*port*/) override {}       ///< does nothing
    void clearQueue() override;
    void setDeviceType(model_GlobalEnum::DeviceType type) override;

    bool openSerialPort(QString portName, QSerialPort::BaudRate baudRate,
                        QSerialPort::StopBits stopBits, QSerialPort::Parity parity,
                        QSerialPort::FlowControl flowControl,
                        QSerialPort::DataBits dataBits) override;             ///< false
    void closeSerialPort() override {}                                        ///< does nothing
    bool openUSB(unsigned short vendorId, unsigned short productId) override; ///< false
    void closeUSB() override {}                                               ///< does nothing

    /// The frame of a record. Any thread; does not block.
    virtual QByteArray produceCmds(model_Protocoldata record) = 0;

protected:
    explicit StreamLink(const ReplyFormat& replies); ///< \a replies must live for ever

    /// Encodes the record behind \a parameters, writes its frame, and shows the first 19 bytes of
    /// it behind \a text in the debug log. Does nothing for null.
    void sendRecord(void* parameters, const char* text);

    /// Writes a frame and reports what became of it. False if it is not to be shown.
    virtual bool writeFrame(const QByteArray& frame) = 0;

    /// Starts the parser's thread. False if the system refuses it.
    [[nodiscard]] bool startParsing();

    /// What counts towards the patience of stopParsing.
    enum class Counts { AllTime, TimeInTheHost };

    /// Clears the run flag and looks every 5 ms whether the parser has ended. One that has not when
    /// \a patience is over is left behind: the link goes on with a fresh stream. TimeInTheHost is
    /// the time that the host's code (its lock, log or message handler) keeps the parser on end;
    /// all else ends by itself, however long a loaded machine takes for it.
    void stopParsing(std::chrono::milliseconds patience, Counts counts);

    bool isParsing() const; ///< a parser of the current stream is on its way or running

private:
    std::shared_ptr<biz_CMDSWork> cmdsWork; // shared with the threads of clearQueue
};
