// SPDX-License-Identifier: MIT
#pragma once

#include "eventually.h"
#include "metamethods.h"
#include "replybytes.h"
#include "serialline.h"
#include "serialpeer.h"

#include <gtest/gtest.h>

/// What a serial transport declares itself.
inline QStringList serialLineSlots()
{
    return {QStringLiteral("slot readPendingDatagrams() "),
            QStringLiteral("slot sendDatatoDevice(void*) parameters"),
            QStringLiteral("slot sendDatatoDeviceByFeatures(void*) parameters"),
            QStringLiteral("slot sendDatatoDeviceForSysPlan(void*) parameters"),
            QStringLiteral("slot handleError(QSerialPort::SerialPortError) error")};
}

/// A serial transport that notes what it was given to send, instead of sending it.
template <class Transport>
class NotingLine : public Transport
{
public:
    using Transport::stream;
    void drop(bool on) { Transport::bBaseFlag = !on; }
    void sendDatatoDevice(void* parameters) override { taken = parameters; }

    void* taken = nullptr;
};

/// A serial transport with a scripted device on a pseudo-terminal, for StreamLinkConformance.
template <class Transport>
class SerialLinkUnderTest
{
public:
    bool open(QSerialPort::BaudRate baudRate = QSerialPort::Baud115200)
    {
        return line.openSerialPort(peer.portName(), baudRate, QSerialPort::OneStop,
                                   QSerialPort::NoParity, QSerialPort::NoFlowControl,
                                   QSerialPort::Data8);
    }
    void close() { line.closeSerialPort(); }
    ICoreBase& transport() { return line; }
    void deliver(const QByteArray& bytes) { ASSERT_TRUE(peer.send(bytes)); }
    void deliver(const QByteArrayList& parts) { deliver(parts.join()); }
    QByteArray atDevice() { return peer.received(); }

    static constexpr int floodSize = 300;

    SerialPeer peer;
    Transport line;
};
