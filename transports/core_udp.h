// SPDX-License-Identifier: MIT
#pragma once

#include "biz_cmdswork.h"
#include "icorebase.h"

#include <QByteArray>
#include <QHostAddress>

#include <atomic>
#include <memory>
#include <mutex>

class QSocketNotifier;
class UdpLink;

/// The device over UDP. Commands go out as text frames in datagrams of at most 540 bytes; a reply
/// is one datagram of 19 bytes, and a reply that carries a block is followed by the block in a
/// datagram of its own.
///
/// | | |
/// |-|-|
/// | local port  | 3005 for the device types 0x353100 and 0x353101, else one fixed port (5104) |
/// | device port | the same 3005, else 1000, until setPort                                    |
/// | device      | 100.100.100.100 until setDeviceIP; broadcasts go to 255.255.255.255        |
///
/// The object lives in the thread that made it, which must run a Qt event loop: datagrams are read
/// there. Unless stated otherwise an operation may be called from any thread and does not block; a
/// send waits for the host's log, which gets a line of it. The datagrams of frames that several
/// threads send at a time may alternate.
///
/// The transport may be destroyed with replies still pending: they reach the queue. Its destructor
/// waits for no host code. The host's message handler and log may re-initialise the transport that
/// they are called from; they must not destroy it.
class CORE_MANAGE_EXPORT core_UDP : public ICoreBase
{
    Q_OBJECT

public:
    /// Held while the device address or port is set and while a reply is stored, of all transports.
    static std::mutex stdCMDlock;

    /// Binds the socket. A port that is taken is not reported: nothing is received then.
    core_UDP();
    ~core_UDP() override;

    void setDeviceIP(QString ip) override;
    void setPort(int port) override;
    void clearQueue() override;
    bool openSerialPort(QString, QSerialPort::BaudRate, QSerialPort::StopBits, QSerialPort::Parity,
                        QSerialPort::FlowControl, QSerialPort::DataBits) override; ///< false
    void closeSerialPort() override {}                                             ///< does nothing
    bool openUSB(unsigned short vendorId, unsigned short productId) override;      ///< false
    void closeUSB() override {}                                                    ///< does nothing
    void setDeviceType(model_GlobalEnum::DeviceType type) override;

    /// Closes the socket, with a reply that waits for its block, and makes and binds a new one.
    /// Sets the device port back to its default. Asks the host for the device type. Owner's thread.
    void initUdp();

    /// Sends a frame to the device in datagrams of at most 540 bytes. Success is a line in the log,
    /// failure a debug line; an unknown outcome emits signalReInitUdp.
    void sendUdpData(QByteArray data);

    /// Sends a frame as one datagram to 255.255.255.255. Reports as sendUdpData.
    void sendUdpDataBroadcast(QByteArray data);

    /// Sets biz_CMDSWork::bRetFlag. Waits for its lock.
    void setRetFlagStatus(bool on);

    /// Appends a record to biz_CMDSWork::receivequeueHexCmd and raises the flag. Waits for the
    /// host's locks.
    void addToReceivedQueue(model_Protocoldata record);

    /// second * 256 + first, as a signed 16-bit value.
    qint16 combineTwoByte(unsigned char first, unsigned char second);

    /// \a text padded on the left with "0" to two characters.
    QString autoRec(QString text);

    void senToUipro(void* /*parameters*/) {} ///< does nothing

    /// The text frame of a record.
    QByteArray produceCmds(model_Protocoldata record);

    /// '<', 'T', two lower-case hexadecimal digits for each byte, '>'.
    QByteArray changeData(QByteArray bytes);

    /// The record of a standard reply. A datagram that is none gives one whose body is all zero,
    /// and a debug line; a wrong checksum also a line in the log.
    model_Protocoldata getArrayData(QByteArray datagram);

    /// Joins a standard reply with its block and queues the record, which carries no origin. A
    /// failure raises the flag and is logged. Waits for the host's locks.
    void combineSTDCMDandBloackCMD(QByteArray arrayreceived, QByteArray stdCMDIn);

Q_SIGNALS:
    /// A send went wrong in an unknown way. Emitted in the owner's thread for a frame of the system
    /// plan, in the caller's thread for every other. The transport's own slots forget the device
    /// address then, some of them behind a slot of the host's: one that sets the address again must
    /// be connected queued and do so through one more queued call.
    void signalReInitUdp();

    void signalSendReceiveMessageToUiPro(void*); ///< never emitted

public Q_SLOTS:
    /// Rebuilds the socket and forgets the device address and port. Owner's thread. Every run adds
    /// one more connection of signalReInitUdp to this slot: the number of runs doubles with each
    /// emission.
    void reInitUdp();

    /// As reInitUdp, but keeps the device address. Owner's thread.
    void reInitUdpZarn();

    /// Reads every datagram that is there. Owner's thread; waits for the host's locks for the kinds
    /// of reply that are queued before the next datagram is read.
    void readPendingDatagrams();

    void sendDatatoDevice(void* parameters) override;
    void sendDatatoDeviceByFeatures(void* parameters) override;
    void sendDatatoDeviceForSysPlan(void* parameters) override;
    void processInfoDisplayonUI(void* parameters) { Q_UNUSED(parameters) } ///< does nothing

private:
    enum class Device { Kept, Forgotten };
    void rebuild(Device device);
    void listen();
    void stopListening();
    void onReadable();
    bool readNext();
    QString senderText(const QHostAddress& sender);
    void route(const model_Protocoldata& record, const QByteArray& datagram,
               LinkEvent::Check refusal);
    void await(const QByteArray& reply);
    void join(const model_Protocoldata& stamps, const QByteArray& block, LinkEvent::Check refusal);
    const char* joined(const QByteArray& received, const QByteArray& reply,
                       model_Protocoldata& record, LinkEvent::Check refusal);
    void forgetReceived();

    QByteArray lastDatagram;
    std::shared_ptr<UdpLink> link;          // udpSocket, strDeviceIP, nPort; shared with senders
    QSocketNotifier* readable = nullptr;    // watches udpSocket; a child
    std::shared_ptr<biz_CMDSWork> cmdsWork; // shared with the thread of clearQueue
    QByteArray stdCMD;                      // standard reply that waits for its block
    QByteArray blockCMD;                    // cleared with stdCMD, used nowhere
    std::atomic<model_GlobalEnum::DeviceType> deviceType{model_GlobalEnum::DeviceType{}};

    QHostAddress lastSender; // what lastSenderText was made from
    QString lastSenderText;
    quint16 lastPort = 0;
};
