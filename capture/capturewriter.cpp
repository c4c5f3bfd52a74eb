// SPDX-License-Identifier: MIT
#include "capturewriter.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

#include <pcap/pcap.h>

namespace
{

constexpr int packetLimit = 262144;         // what readers take
constexpr int pieceLimit = packetLimit / 2; // the rest of a longer write is a packet of its own

qint64 costOf(const CaptureRecord& record)
{
    return static_cast<qint64>(sizeof record) + record.bytes.size();
}

void dump(pcap_dumper_t* dumper, const CaptureRecord& record)
{
    constexpr qint64 second = 1000000000;
    const QByteArray packet = record.encode();
    pcap_pkthdr head{};
    head.ts.tv_sec = static_cast<time_t>(record.time / second);
    head.ts.tv_usec = static_cast<suseconds_t>(record.time % second); // ns, as the file says
    head.caplen = static_cast<bpf_u_int32>(packet.size());
    head.len = head.caplen;
    pcap_dump(reinterpret_cast<u_char*>(dumper), &head,
              reinterpret_cast<const u_char*>(packet.constData()));
}

// What is wrong; empty if the system has taken them.
QString write(pcap_dumper_t* file, const std::deque<CaptureRecord>& records)
{
    for (const CaptureRecord& record : records) {
        CaptureRecord piece = record;
        for (int from = 0; from == 0 || from < record.bytes.size(); from += pieceLimit) {
            piece.bytes = record.bytes.mid(from, pieceLimit);
            dump(file, piece);
        }
    }
    const bool isTaken = pcap_dump_flush(file) == 0 && std::ferror(pcap_dump_file(file)) == 0;
    return isTaken ? QString() : QString::fromLocal8Bit(std::strerror(errno));
}

} // namespace

bool CaptureWriter::open(const QString& path)
{
    close();
    pcap_t* const format = pcap_open_dead_with_tstamp_precision(
        DLT_WIRESHARK_UPPER_PDU, packetLimit, PCAP_TSTAMP_PRECISION_NANO);
    pcap_dumper* const file = pcap_dump_open(format, QFile::encodeName(path).constData());
    const std::lock_guard guard(lock);
    problem = file == nullptr ? QString::fromLocal8Bit(pcap_geterr(format)) : QString();
    pcap_close(format);
    writtenCount = 0;
    droppedCount = 0;
    if (file != nullptr) {
        start(file);
    }
    return isOpen;
}

// The thread takes no signals: they are the program's, and a broken pipe is an error of the file.
void CaptureWriter::start(pcap_dumper* file)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        isOpen = true;
        thread = std::thread(&CaptureWriter::run, this, file);
    } catch (const std::system_error& error) {
        isOpen = false;
        problem = QString::fromLocal8Bit(error.what());
        pcap_dump_close(file);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void CaptureWriter::add(CaptureRecord record)
{
    {
        const std::lock_guard guard(lock);
        if (!isOpen) {
            return;
        }
        if (!problem.isEmpty() || queued + costOf(record) > queueLimit) {
            ++droppedCount;
            return;
        }
        queued += costOf(record);
        queue.push_back(std::move(record));
    }
    wake.notify_one();
}

void CaptureWriter::close()
{
    {
        const std::lock_guard guard(lock);
        isOpen = false;
    }
    wake.notify_one();
    if (thread.joinable()) {
        thread.join();
    }
}

// Whoever reads the file gets its head at once, and each packet as soon as it has been written.
void CaptureWriter::run(pcap_dumper* file)
{
    std::unique_lock guard(lock);
    for (bool goesOn = true; goesOn; goesOn = isOpen || !queue.empty()) {
        const std::deque<CaptureRecord> records = std::exchange(queue, {});
        queued = 0;
        guard.unlock();
        const QString wrong = write(file, records);
        guard.lock();
        account(static_cast<qint64>(records.size()), wrong);
        wake.wait(guard, [this] { return !isOpen || !queue.empty(); });
    }
    guard.unlock();
    pcap_dump_close(file);
}

void CaptureWriter::account(qint64 count, const QString& wrong)
{
    if (wrong.isEmpty()) {
        writtenCount += count;
        return;
    }
    problem = wrong;
    droppedCount += count + static_cast<qint64>(queue.size());
    queue.clear();
}

QString CaptureWriter::error() const
{
    const std::lock_guard guard(lock);
    return problem;
}

qint64 CaptureWriter::written() const
{
    const std::lock_guard guard(lock);
    return writtenCount;
}

qint64 CaptureWriter::dropped() const
{
    const std::lock_guard guard(lock);
    return droppedCount;
}
