// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

struct _UMockdevIoctlBase;
struct _UMockdevIoctlClient;
struct _UMockdevTestbed;

/// A /sys and a /dev of this process's own, into which emulated HID devices are plugged: libudev
/// and hidapi look there, and so do programs that it starts. The executable must be linked with
/// core_manage_hid_testbed, which redirects the system calls.
///
/// It is told to programs in the environment variable that locationVariable names.
///
/// One at a time. Devices go before it, and open handles before their devices: a write on a handle
/// that outlives the testbed blocks for ever. The working directory must not be /.
class HidTestbed
{
public:
    static constexpr const char* locationVariable = "UMOCKDEV_DIR";

    HidTestbed();
    ~HidTestbed();
    HidTestbed(const HidTestbed&) = delete;
    HidTestbed& operator=(const HidTestbed&) = delete;

    _UMockdevTestbed* testbed() const { return bed; }
    QString root() const; ///< the directory that holds them
    int nextNumber() { return ++lastNumber; }

private:
    _UMockdevTestbed* bed;
    int lastNumber = -1;
};

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
    void refuseWrites(bool on) { refuseWritesAfter(on ? 0 : -1); }

    /// Refuses every output report after \a count more.
    void refuseWritesAfter(int count) { set(writesLeft, count); }

    /// Answers each output report that it takes with this count, at most its length.
    void countWritesAs(int count) { set(writeCount, count); }

    /// While \a on, output reports stay in the kernel: their writers wait, and so do all who ask
    /// the node or read it.
    void holdWrites(bool on) { set(isHolding, on); }

    /// Lets the node be opened \a count times more; then it is not there any more.
    void allowOpens(int count) { set(opensLeft, count); }

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

    template <int (EmulatedHid::*operation)(_UMockdevIoctlClient*)>
    static int handle(_UMockdevIoctlBase*, _UMockdevIoctlClient* client, void* self);
    int control(_UMockdevIoctlClient* client);
    int read(_UMockdevIoctlClient* client);
    int write(_UMockdevIoctlClient* client);
    template <class Value>
    void set(Value& setting, Value value)
    {
        const std::lock_guard guard(lock);
        setting = value;
        released.notify_all();
    }
    void addToBus(quint16 vendorId, quint16 productId);
    bool makeNode();
    void attachHandlers();
    void noteOpen(_UMockdevIoctlClient* client);
    void forgetClosed();

    HidTestbed& bed;
    const Listener listener;
    const QString node;     // /dev/hidrawN
    const std::string path; // where it really is
    QString usbPath;        // in /sys
    _UMockdevIoctlBase* handlers = nullptr;
    std::shared_mutex handling; // shared by the handlers at work, which the destructor waits for

    mutable std::mutex lock; // a leaf: everything below
    bool isPlugged = true;
    OpenFile next; // what the node is for the next one who opens it
    std::map<_UMockdevIoctlClient*, OpenFile> files;
    std::condition_variable released;
    bool isHolding = false;
    int heldWrites = 0;
    int opensLeft = -1;  // until the node goes; negative: without limit
    int writesLeft = -1; // until they are refused; negative: without limit
    int writeCount = -1; // what a write returns; negative: its length
    std::vector<std::string> output;
};
