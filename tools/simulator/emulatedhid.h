// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

class HidTestbed;
struct _UMockdevIoctlBase;
struct _UMockdevIoctlClient;

/// A HID device with one hidraw node in a HidTestbed, which hidapi finds, opens, writes and reads
/// like any other.
///
/// The node is the slave of a raw pseudo-terminal. Its reads and writes are answered by a thread of
/// the testbed, each as one message of its exact length; since that has no say in poll, each queued
/// input report also puts one byte into the pseudo-terminal, which makes the node readable and is
/// taken out by the read. As in the kernel, an open starts with nothing to read, and reports are
/// dropped while queueLength of them are unread.
///
/// Any thread may call any operation.
class EmulatedHid
{
public:
    static constexpr int queueLength = 63; ///< unread input reports that the node keeps
    static constexpr int reportData = 64;  ///< bytes of a report of the usual size

    /// Called with each output report, on a thread of the testbed, while nothing is locked.
    using Listener = std::function<void(const QByteArray& report)>;

    EmulatedHid(HidTestbed& testbed, quint16 vendorId, quint16 productId, Listener heard = {});
    ~EmulatedHid(); ///< unplugs it
    EmulatedHid(const EmulatedHid&) = delete;
    EmulatedHid& operator=(const EmulatedHid&) = delete;

    /// Queues one input report, exactly these bytes. False if it is dropped.
    bool send(const QByteArray& report);

    /// Queues these bytes in reports of 64 bytes, the last one filled with zeros. False if any of
    /// them is dropped.
    bool sendPadded(const QByteArray& bytes);

    int unread() const; ///< input reports that wait to be read

    /// Every output report so far, report number included.
    std::vector<QByteArray> written() const;

    /// While \a on, the device refuses output reports; what it refuses is not in written.
    void refuseWrites(bool on);

    /// Refuses every output report after \a count more.
    void refuseWritesAfter(int count);

    /// Answers each output report that it takes with this count, whatever its length.
    void countWritesAs(int count);

    /// While \a on, output reports stay in the kernel: their writers wait, and so do all who ask
    /// the node or read it.
    void holdWrites(bool on);

    int held() const; ///< output reports that are held, or have been

    /// Takes the device off the bus: polls report a hang-up, writes fail with ENODEV, and it is not
    /// found any more.
    void unplug();

private:
    static int onIoctl(_UMockdevIoctlBase*, _UMockdevIoctlClient* client, void* self);
    static int onRead(_UMockdevIoctlBase*, _UMockdevIoctlClient* client, void* self);
    static int onWrite(_UMockdevIoctlBase*, _UMockdevIoctlClient* client, void* self);
    void addToBus(quint16 vendorId, quint16 productId);
    void makeNode();
    void attachHandlers();
    void empty();

    HidTestbed& bed;
    const Listener listener;
    const QString node; // /dev/hidrawN
    QString usbPath;    // in /sys
    QString hidrawPath;
    _UMockdevIoctlBase* handlers = nullptr;

    mutable std::mutex lock; // a leaf: everything below
    int master = -1;         // -1 once unplugged
    int slave = -1;
    std::condition_variable released;
    bool isHolding = false;
    int heldWrites = 0;
    int writesLeft = -1; // until they are refused; negative: without limit
    int writeCount = -1; // what a write returns; negative: its length
    std::deque<QByteArray> input;
    std::vector<QByteArray> output;
};
