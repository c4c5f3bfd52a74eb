// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

class HidTestbed;
struct _UMockdevIoctlBase;
struct _UMockdevIoctlClient;

/// A HID device with one hidraw node in a HidTestbed, which hidapi finds, opens, writes and reads
/// like any other.
///
/// As in the kernel, every open file of the node gets every input report, starts with none, and
/// loses those that come while queueLength of its own are unread.
///
/// The node is the slave of a raw pseudo-terminal. Its reads and writes are answered by a thread of
/// the testbed, each as one message of its exact length; since that has no say in poll, each queued
/// input report also puts one byte into the pseudo-terminal, which makes the node readable and is
/// taken out by the read. So that each open file has a pseudo-terminal of its own, the node becomes
/// another one as soon as hidapi has opened it: processes must not open it at the same time.
///
/// Any thread may call any operation. What the threads share are standard strings, not Qt's, whose
/// implicit sharing reaches past the lock.
class EmulatedHid
{
public:
    static constexpr int queueLength = 63; ///< unread input reports that an open file keeps
    static constexpr int reportData = 64;  ///< bytes of a report of the usual size

    /// Called with each output report, on a thread of the testbed, while nothing is locked.
    using Listener = std::function<void(const std::string& report)>;

    EmulatedHid(HidTestbed& testbed, quint16 vendorId, quint16 productId, Listener heard = {});
    ~EmulatedHid(); ///< unplugs it
    EmulatedHid(const EmulatedHid&) = delete;
    EmulatedHid& operator=(const EmulatedHid&) = delete;

    /// Queues one input report, exactly these bytes. False if every open file loses it.
    bool send(const QByteArray& report);

    /// Queues these bytes in reports of 64 bytes, the last one filled with zeros. False if send is
    /// for any of them.
    bool sendPadded(const QByteArray& bytes);

    int unread();    ///< input reports that wait in the open file that has the fewest
    int openFiles(); ///< how many hidapi has open

    /// Every output report so far, report number included.
    std::vector<QByteArray> written() const;

    /// While \a on, the device refuses output reports; what it refuses is not in written.
    void refuseWrites(bool on);

    /// Refuses every output report after \a count more.
    void refuseWritesAfter(int count);

    /// Answers each output report that it takes with this count, at most its length.
    void countWritesAs(int count);

    /// While \a on, output reports stay in the kernel: their writers wait, and so do all who ask
    /// the node or read it.
    void holdWrites(bool on);

    /// Lets the node be opened \a count times more; then it is not there any more.
    void allowOpens(int count);

    int held() const; ///< output reports that are held, or have been

    /// Takes the device off the bus: polls report a hang-up, writes fail with ENODEV, and it is not
    /// found any more.
    void unplug();

private:
    struct OpenFile {
        int master = -1; // -1 once unplugged
        int slave = -1;
        std::deque<std::string> input;
    };

    class Handling;
    static int onIoctl(_UMockdevIoctlBase*, _UMockdevIoctlClient* client, void* self);
    static int onRead(_UMockdevIoctlBase*, _UMockdevIoctlClient* client, void* self);
    static int onWrite(_UMockdevIoctlBase*, _UMockdevIoctlClient* client, void* self);
    void addToBus(quint16 vendorId, quint16 productId);
    bool makeNode();
    void attachHandlers();
    void noteOpen(_UMockdevIoctlClient* client);
    int take(_UMockdevIoctlClient* client, std::string& report);
    void forgetClosed();

    HidTestbed& bed;
    const Listener listener;
    const QString node;     // /dev/hidrawN
    const std::string path; // where it really is
    QString usbPath;        // in /sys
    QString hidrawPath;
    _UMockdevIoctlBase* handlers = nullptr;

    mutable std::mutex lock; // a leaf: everything below
    bool isPlugged = true;
    OpenFile next; // what the node is for the next one who opens it
    std::map<_UMockdevIoctlClient*, OpenFile> files;
    std::condition_variable released;
    int handling = 0; // handlers at work, which the destructor waits for
    bool isHolding = false;
    int heldWrites = 0;
    int opensLeft = -1;  // until the node goes; negative: without limit
    int writesLeft = -1; // until they are refused; negative: without limit
    int writeCount = -1; // what a write returns; negative: its length
    std::vector<std::string> output;
};
