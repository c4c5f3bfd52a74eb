// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"
#include "hostcontract.h"
#include "linkobserver.h"

#include <QObject>
#include <QSerialPort>
#include <QString>

/// One device link, whatever the medium. The host sends command records through it; decoded replies
/// come back through biz_CMDSWork::receivequeueHexCmd and biz_CMDSWork::bRetFlag.
///
/// An object belongs to the thread that made it, which must run a Qt event loop. An operation that
/// does not apply to a link does nothing; an opener of another link returns false at once. Nothing
/// is thrown and no send reports failure: what happened is in Qt's "default" log category and,
/// where it matters later, in Utility_Manage::writeLog.
class CORE_MANAGE_EXPORT ICoreBase : public QObject, public ObservableLink
{
    Q_OBJECT

public:
    ICoreBase();
    ~ICoreBase() override;

    /// UDP: the device's IPv4 or IPv6 address. Not checked: a text that is no address makes every
    /// later unicast send fail. Any thread; does not block.
    virtual void setDeviceIP(QString ip) = 0;

    /// UDP: the device's port, 1 to 65535 (used modulo 65536). The local port does not change. Any
    /// thread; does not block.
    virtual void setPort(int port) = 0;

    /// Has biz_CMDSWork::clearQueue run on another thread. Any thread; does not block.
    virtual void clearQueue() = 0;

    /// Serial links: configures and opens the port, as \a portName a name like ttyUSB0 or a path.
    /// False if it cannot be opened, with the port closed. A port that is open is closed first and
    /// takes as long as closeSerialPort. Owner's thread.
    virtual bool openSerialPort(QString portName, QSerialPort::BaudRate baudRate,
                                QSerialPort::StopBits stopBits, QSerialPort::Parity parity,
                                QSerialPort::FlowControl flowControl,
                                QSerialPort::DataBits dataBits) = 0;

    /// Serial links: waits for the parser (up to 600 ms if that waits for a block, 1000 if the host
    /// keeps it; longer if the machine gives it no time) and for what was sent (as long as the line
    /// goes on taking it; 800 ms if it does not), and closes the port. Owner's thread.
    virtual void closeSerialPort() = 0;

    /// USB: opens the first HID device with these ids, false if there is none or it cannot be
    /// opened. What is open is closed first. Takes as long as closeUSB, and a search of all HID
    /// devices of the system. Any thread.
    virtual bool openUSB(unsigned short vendorId, unsigned short productId) = 0;

    /// USB: closes the device and stops its workers. Takes 100 to 200 ms, and up to a second more
    /// while a report that is being sent is stuck in the kernel. Any thread.
    virtual void closeUSB() = 0;

    /// The device model that every received record is stamped with (featureCode). Any thread; does
    /// not block.
    virtual void setDeviceType(model_GlobalEnum::DeviceType type) = 0;

public Q_SLOTS:
    /// Sends one command. \a parameters points to a model_Protocoldata that is copied before the
    /// call returns; null is ignored. Waits for no reply. UDP and USB: any thread, and USB waits
    /// for the kernel to take each report. Serial links: owner's thread, does not wait for the
    /// line.
    virtual void sendDatatoDevice(void* parameters) = 0;

    /// As sendDatatoDevice, but only if the record's featureCode suits the link; else drops it.
    virtual void sendDatatoDeviceByFeatures(void* parameters) = 0;

    /// UDP: sends one command of the system plan, if its strKey is exactly this link's device
    /// address. The outcome is logged by another thread. Any thread; does not block.
    virtual void sendDatatoDeviceForSysPlan(void* parameters) = 0;

protected:
    bool bBaseFlag = true; ///< serial links: buffer what is received
};
