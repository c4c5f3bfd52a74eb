// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/// A capture as a test writes it: packets, each a millisecond after the one before unless told
/// otherwise. Packets are numbered from 1.
class CaptureFile
{
public:
    enum class Content { Internet, Pdus, Usb };

    /// The media of a packet that a link was captured with, and what happened to its bytes.
    enum class Medium { Udp = 1, Serial, Vela, Usb, Osd };
    enum class What { Sent, Received, NotSent, Opened, Closed };

    struct End {
        int host; ///< the last number of its address, 10.0.0.
        int port;
    };

    explicit CaptureFile(Content content);

    void udp(End from, End to, const QByteArray& bytes);

    /// The system's message that nobody listens there, with the datagram.
    void unreachable(End from, End to, const QByteArray& bytes);

    /// A segment that acknowledges nothing; \a sequence counts from 0 in each direction.
    void tcp(End from, End to, int sequence, const QByteArray& bytes);

    /// What a link's capture says of it.
    void link(Medium medium, What what, const QString& name, const QByteArray& bytes);

    /// A packet that says to be of a link's capture.
    void pdu(const QByteArray& bytes);

    /// A transfer of a HID device 1.5 on endpoint 1 as usbmon has it, or its descriptors.
    void usbReport(bool fromDevice, const QByteArray& bytes);
    void usbDescriptors(int vendor, int product);

    void wait(int milliseconds) { timeMs += milliseconds; }
    int count() const { return packets; }
    QByteArray content() const { return file; }

private:
    void add(const QByteArray& packet);
    void usb(char event, char type, int endpoint, const QByteArray& setup, const QByteArray& bytes);

    QByteArray file;
    qint64 timeMs = 1000;
    int packets = 0;
};
