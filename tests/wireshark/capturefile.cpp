// SPDX-License-Identifier: MIT
#include "capturefile.h"

#include <QDataStream>

namespace
{

template <class... Values>
QByteArray bigEndian(Values... values)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    (out << ... << values);
    return bytes;
}

template <class... Values>
QByteArray littleEndian(Values... values)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    (out << ... << values);
    return bytes;
}

QByteArray tag(int type, QByteArray value)
{
    value.append((4 - value.size() % 4) % 4, '\0');
    return bigEndian(static_cast<quint16>(type), static_cast<quint16>(value.size())) + value;
}

quint32 linkType(CaptureFile::Content content)
{
    return content == CaptureFile::Content::Internet ? 101 // raw IP
           : content == CaptureFile::Content::Usb    ? 220 // Linux, with padded headers
                                                     : 252;   // exported PDUs
}

quint32 address(int host)
{
    return 0x0a000000U + static_cast<quint32>(host);
}

constexpr int udpProtocol = 17;

QByteArray internet(int protocol, CaptureFile::End from, CaptureFile::End to,
                    const QByteArray& bytes)
{
    return bigEndian(quint16{0x4500}, static_cast<quint16>(20 + bytes.size()), 0U, quint8{64},
                     static_cast<quint8>(protocol), quint16{0}, address(from.host),
                     address(to.host)) +
           bytes;
}

QByteArray datagram(CaptureFile::End from, CaptureFile::End to, const QByteArray& bytes)
{
    return bigEndian(static_cast<quint16>(from.port), static_cast<quint16>(to.port),
                     static_cast<quint16>(8 + bytes.size()), quint16{0}) +
           bytes;
}

} // namespace

CaptureFile::CaptureFile(Content content)
    : file(littleEndian(0xa1b23c4dU, quint16{2}, quint16{4}, 0U, 0U, 0x40000U, linkType(content)))
{
}

void CaptureFile::add(const QByteArray& packet)
{
    const auto size = static_cast<quint32>(packet.size());
    file += littleEndian(static_cast<quint32>(timeMs / 1000),
                         static_cast<quint32>(timeMs % 1000 * 1000000), size, size) +
            packet;
    ++timeMs;
    ++packets;
}

void CaptureFile::udp(End from, End to, const QByteArray& bytes)
{
    add(internet(udpProtocol, from, to, datagram(from, to, bytes)));
}

void CaptureFile::unreachable(End from, End to, const QByteArray& bytes)
{
    constexpr quint16 portUnreachable = 0x0303;
    constexpr int icmp = 1;
    const QByteArray quoted = internet(udpProtocol, to, from, datagram(to, from, bytes));
    add(internet(icmp, from, to, bigEndian(portUnreachable, quint16{0}, 0U) + quoted));
}

void CaptureFile::tcp(End from, End to, int sequence, const QByteArray& bytes)
{
    constexpr int protocol = 6;
    constexpr quint16 flags = 0x5018; // 20 bytes of header, pushed
    add(internet(protocol, from, to,
                 bigEndian(static_cast<quint16>(from.port), static_cast<quint16>(to.port),
                           static_cast<quint32>(sequence), 0U, flags, quint16{0xffff}, 0U) +
                     bytes));
}

void CaptureFile::link(Medium medium, What what, const QString& name, const QByteArray& bytes)
{
    const QByteArray text = name.toUtf8();
    QByteArray tags = tag(12, "coremanage.link");
    if (medium == Medium::Udp || medium == Medium::Osd) {
        const bool isSent = what == What::Sent;
        tags += tag(20, bigEndian(address(isSent ? 1 : 2))) +
                tag(21, bigEndian(address(isSent ? 2 : 1))) +
                tag(24, bigEndian(medium == Medium::Udp ? 3 : 2)) +
                tag(25, bigEndian(isSent ? 5104 : 1000)) + tag(26, bigEndian(isSent ? 1000 : 5104));
    }
    add(tags + tag(0, {}) +
        bigEndian(quint8{1}, static_cast<quint8>(medium), static_cast<quint8>(what),
                  static_cast<quint8>(text.size())) +
        text + bytes);
}

void CaptureFile::pdu(const QByteArray& bytes)
{
    add(tag(12, "coremanage.link") + tag(0, {}) + bytes);
}

void CaptureFile::usb(char event, char type, int endpoint, const QByteArray& setup,
                      const QByteArray& bytes)
{
    const bool hasSetup = !setup.isEmpty();
    const auto size = static_cast<quint32>(bytes.size());
    add(littleEndian(quint64{7}, static_cast<quint8>(event), static_cast<quint8>(type),
                     static_cast<quint8>(endpoint), quint8{5}, quint16{1},
                     static_cast<quint8>(hasSetup ? 0 : '-'),
                     static_cast<quint8>(bytes.isEmpty() ? '<' : 0),
                     static_cast<quint64>(timeMs / 1000), 0U, 0U, size, size) +
        (hasSetup ? setup : QByteArray(8, '\0')) + QByteArray(16, '\0') + bytes);
}

void CaptureFile::usbReport(bool fromDevice, const QByteArray& bytes)
{
    constexpr char interrupt = 1;
    usb(fromDevice ? 'C' : 'S', interrupt, fromDevice ? 0x81 : 0x01, {}, bytes);
}

void CaptureFile::usbDescriptors(int vendor, int product)
{
    constexpr char control = 2;
    usb('S', control, 0x80, QByteArray::fromHex("8006000100001200"), {});
    usb('C', control, 0x80, {},
        littleEndian(quint8{18}, quint8{1}, quint16{0x200}, quint32{0x40000000},
                     static_cast<quint16>(vendor), static_cast<quint16>(product), quint16{0},
                     quint16{0}, quint8{0}, quint8{1}));
    usb('S', control, 0x80, QByteArray::fromHex("8006000200002900"), {});
    usb('C', control, 0x80, {},
        QByteArray::fromHex("09022900010100c032" // one interface,
                            "0904000002030000000921110100012222000705810340000a"
                            "07050103400010")); // of class HID, with two interrupt endpoints
}
