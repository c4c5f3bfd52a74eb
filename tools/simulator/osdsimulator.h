// SPDX-License-Identifier: MIT
#pragma once

#include "simulateddevice.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

/// What a simulated endpoint takes for a good command, and how it answers.
struct OsdSimulatorOptions {
    QString address = QStringLiteral("127.0.0.1");
    quint16 port = 10001; ///< 0: any that is free
    quint64 seed = 1;     ///< of everything that is random

    /// Bytes of data in each command. Commands carry no length, so without it a command is
    /// whatever comes in until the line is quiet for a moment.
    std::optional<int> dataLength;
    QByteArray head; ///< what a good command begins with; at most 6 bytes
    QByteArray tail; ///< what a good command ends with; at most 2 bytes

    /// The byte behind "OK"; without it the command's first byte.
    std::optional<char> status;
    Faults faults; ///< those that an endpoint can show

    /// Told of each good command, whose bytes are its block, on the endpoint's thread.
    std::function<void(const Exchange& exchange)> onExchange;
};

/// A simulated on-screen-display endpoint: a TCP server on a thread of its own that checks each
/// command frame and answers it with "OK" and one byte, or misbehaves as told. It has a codec of
/// its own. A command that is shorter than a frame, or doesn't have the expected head and tail, is
/// counted and not answered.
///
/// All operations may be called from any thread.
class OsdSimulator
{
public:
    explicit OsdSimulator(OsdSimulatorOptions options);
    ~OsdSimulator(); ///< hangs up everywhere and ends
    OsdSimulator(const OsdSimulator&) = delete;
    OsdSimulator& operator=(const OsdSimulator&) = delete;

    /// Begins to serve. False, with the reason in error(), if the address can't be had.
    bool start();
    QString error() const;

    quint16 port() const; ///< the one it got
    void setFaults(const Faults& faults);
    void setFault(Fault fault, const Faults::Setting& setting);

    /// Hangs up on everyone: with a reset, or properly, once what is due has been sent.
    void hangUp(bool reset);

    /// Sends bytes as they are to everyone who is connected.
    void send(const QByteArray& bytes);

    int accepted() const;                     ///< connections so far
    int connected() const;                    ///< connections now
    int good() const;                         ///< good commands so far
    int bad() const;                          ///< other commands so far
    qint64 badBytes() const;                  ///< how many bytes those had
    qint64 answers() const;                   ///< acknowledgements given so far
    qint64 sentBytes() const;                 ///< bytes written so far
    bool isIdle() const;                      ///< everything that is to be sent has been
    QByteArray received() const;              ///< every byte so far, in order of arrival
    qint64 receivedBytes() const;             ///< how many those are
    std::vector<QByteArray> commands() const; ///< the good commands
    std::vector<quint16> peerPorts() const;   ///< the port at the other end of each connection

private:
    struct Server;
    std::unique_ptr<Server> server;
};
