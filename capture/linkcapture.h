// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"
#include "linkobserver.h"

#include <QString>

#include <memory>

class CaptureWriter;

/// A file with what happens on links, for Wireshark: each sent and received datagram, report or
/// piece of a stream with its time in nanoseconds. A thread of its own writes it. Any thread.
class CORE_MANAGE_EXPORT CaptureFile
{
public:
    /// \a limit: how many bytes may wait to be written; what comes beyond that is dropped.
    explicit CaptureFile(qint64 limit = defaultLimit);
    ~CaptureFile(); ///< closes
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    /// Begins a file, an existing one anew; "-" is standard output. A named pipe waits for its
    /// reader. False if that fails: error says why.
    bool open(const QString& path);

    /// Writes what waits and ends the file. Takes as long as who reads a pipe takes.
    void close();

    QString error() const;  ///< why nothing is written any more; empty if it is
    qint64 written() const; ///< events in the file, as far as the system has taken them
    qint64 dropped() const; ///< events that are not: too many waited, or the file failed

    static constexpr qint64 defaultLimit = qint64{64} * 1024 * 1024; ///< bytes

private:
    friend class LinkCapture;
    std::unique_ptr<CaptureWriter> writer;
};

/// Puts what happens on a link into a file. Several may share one file.
///
///     auto file = std::make_shared<CaptureFile>();
///     file->open("wire.pcap");
///     link->addObserver(std::make_shared<LinkCapture>(file, "udp://192.168.1.20:1000"));
class CORE_MANAGE_EXPORT LinkCapture : public LinkObserver
{
public:
    /// \a link names the link in the file, up to 255 bytes in UTF-8. Its scheme tells the dissector
    /// what is on the wire: udp, serial, vela (the second serial link), usb or osd, where the
    /// endpoint's own address takes the place of what follows the scheme.
    LinkCapture(std::shared_ptr<CaptureFile> file, const QString& link);
    ~LinkCapture() override;

    /// Never waits for the file.
    void onEvent(const LinkEvent& event) override;

private:
    const std::shared_ptr<CaptureFile> captureFile;
    const QByteArray name;
};
