// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QHostAddress>

#include <optional>

/// One packet of a capture file: something that happened on a link. Pure: no state, no I/O.
///
/// The file's link type is that of exported PDUs, so a packet begins with tags: a 16-bit type, a
/// 16-bit length and the value, padded to a multiple of four bytes, high byte first. One names the
/// dissector, "coremanage.link"; with UDP and TCP others have addresses and ports. Behind the tags:
///
/// | offset | size | content                                             |
/// |--------|------|-----------------------------------------------------|
/// | 0      | 1    | 1, the version                                      |
/// | 1      | 1    | the Medium                                          |
/// | 2      | 1    | the What                                            |
/// | 3      | 1    | N, the length of the link's name                    |
/// | 4      | N    | the link's name, UTF-8                              |
/// | 4 + N  | n    | the bytes                                           |
struct CaptureRecord {
    enum class Medium : quint8 { Other, Udp, Serial, Vela, Usb, Osd };
    enum class What : quint8 { Sent, Received, SendFailed, Opened, Closed, Lost, Reinitialised };

    struct Endpoint {
        QHostAddress address; ///< null: not known, or none
        quint16 port = 0;
    };

    qint64 time = 0; ///< ns since 1970; stands in the file's own head of a packet
    Medium medium = Medium::Other;
    What what = What::Sent;
    QByteArray link; ///< its name; at most 255 bytes are kept
    Endpoint here;   ///< this machine's end; with Udp and Osd
    Endpoint device; ///< the other one
    QByteArray bytes;

    /// The medium that the scheme of a link's name tells.
    static Medium mediumOf(const QByteArray& link);

    QByteArray encode() const;

    /// Nothing if these bytes are no such packet. The time stays 0.
    static std::optional<CaptureRecord> decode(const QByteArray& packet);
};
