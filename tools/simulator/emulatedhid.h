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

/// A private /sys and /dev, into which emulated HID devices are plugged. libudev and hidapi use
/// them in this process and in every process with the environment variable locationVariable. The
/// executable must be linked with core_manage_hid_testbed, which redirects the system calls.
///
/// One at a time. Destroy devices before the testbed, and close handles before their device: a
/// write on a handle that outlives the testbed blocks for ever. The working directory must not be
/// /.
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
/// As in the kernel, every open file of the node has its own queue of input reports. It starts
/// empty, and a report is lost while queueLength reports are unread.
///
/// A thread of the testbed answers each read and write with one whole report. It cannot answer
/// poll. Therefore the node is the slave of a raw pseudo-terminal, and one byte in it for each
/// queued report makes the node readable. Each open file needs its own pseudo-terminal, so the node
/// is replaced as soon as hidapi has opened it: two processes must not open it at the same time.
///
/// Any thread may call any operation. The threads share standard strings, because the implicit
/// sharing of Qt's strings is not covered by the lock.
class EmulatedHid
{
public:
    static constexpr int queueLength = 63; ///< unread input reports that an open file keeps
    static constexpr int reportData = 64;  ///< bytes of a report without its number

    /// Called with each output report, on a thread of the testbed, while nothing is locked.
    using Listener = std::function<void(const std::string& report)>;

    EmulatedHid(HidTestbed& testbed, quint16 vendorId, quint16 productId, Listener heard = {});
    ~EmulatedHid(); ///< unplugs it
    EmulatedHid(const EmulatedHid&) = delete;
    EmulatedHid& operator=(const EmulatedHid&) = delete;

    /// Queues one input report, exactly these bytes. False if every open file loses it.
    bool send(const QByteArray& report);

    /// Queues these bytes in reports of 64 bytes, the last one padded with zeros. False if any of
    /// them is lost.
    bool sendPadded(const QByteArray& bytes);

    int unread();    ///< queued input reports of the open file that has the fewest
    int openFiles(); ///< handles that hidapi has open

    /// Every output report so far, report number included, since they were last forgotten.
    std::vector<QByteArray> written() const;

    /// For a listener that has taken them, and goes on for long.
    void forgetWritten();

    /// While \a on, refuses output reports. They are not in written().
    void refuseWrites(bool on) { refuseWritesAfter(on ? 0 : -1); }

    /// Refuses output reports after \a count more.
    void refuseWritesAfter(int count) { set(writesLeft, count); }

    /// Answers each output report that it takes with this count, at most its length.
    void countWritesAs(int count) { set(writeCount, count); }

    /// While \a on, output reports stay in the kernel: every write, read and ioctl of the node
    /// blocks.
    void holdWrites(bool on) { set(isHolding, on); }

    /// Removes the node after it has been opened \a count times more.
    void allowOpens(int count) { set(opensLeft, count); }

    int held() const; ///< output reports held so far

    /// Removes the device from the bus: polls report a hang-up, writes fail with ENODEV, and the
    /// device is no longer found.
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
    OpenFile next; // the pseudo-terminal of the next open
    std::map<_UMockdevIoctlClient*, OpenFile> files;
    std::condition_variable released;
    bool isHolding = false;
    int heldWrites = 0;
    int opensLeft = -1;  // until the node goes; negative: without limit
    int writesLeft = -1; // until they are refused; negative: without limit
    int writeCount = -1; // what a write returns; negative: its length
    std::vector<std::string> output;
};
