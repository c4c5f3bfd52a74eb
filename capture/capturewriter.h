// SPDX-License-Identifier: MIT
#pragma once

#include "capturerecord.h"

#include <QString>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

struct pcap_dumper;

/// A capture file and the thread that writes it. What happens is queued and never waits for the
/// file; what finds no room is counted instead. Any thread.
class CaptureWriter
{
public:
    /// \a limit: bytes that may wait to be written.
    explicit CaptureWriter(qint64 limit) : queueLimit(limit) {}
    ~CaptureWriter() { close(); }
    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    /// Begins a file; "-" is standard output. A named pipe waits for its reader. False: error says
    /// why.
    bool open(const QString& path);

    /// Queues a record; nothing while no file is open.
    void add(CaptureRecord record);

    /// Writes what waits and ends the file. Takes as long as the file's reader takes.
    void close();

    QString error() const;  ///< why nothing is written any more; empty if it is
    qint64 written() const; ///< records in the file, as far as the system has taken them
    qint64 dropped() const; ///< records that are not

private:
    void start(pcap_dumper* file);
    void run(pcap_dumper* file);
    void account(qint64 count, const QString& wrong);

    const qint64 queueLimit;
    std::thread thread;

    mutable std::mutex lock; // a leaf; guards what follows
    std::condition_variable wake;
    std::deque<CaptureRecord> queue;
    qint64 queued = 0; // bytes
    bool isOpen = false;
    QString problem;
    qint64 writtenCount = 0;
    qint64 droppedCount = 0;
};
