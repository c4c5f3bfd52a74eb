// SPDX-License-Identifier: MIT
#include "capturerecord.h"

#include <QDataStream>
#include <QIODevice>

#include <algorithm>
#include <iterator>

namespace
{

using Medium = CaptureRecord::Medium;
using What = CaptureRecord::What;

constexpr quint8 version = 1;
constexpr quint32 tcp = 2; // as exported PDUs number the kinds of ports
constexpr quint32 udp = 3;
constexpr int nameLimit = 255;
constexpr int alignment = 4;
constexpr const char* dissector = "coremanage.link";
constexpr const char* schemes[] = {"", "udp", "serial", "vela", "usb", "osd"}; // of each Medium

enum Tag : quint16 {
    End = 0,
    DissectorName = 12,
    SourceIpv4 = 20,
    DestinationIpv4 = 21,
    SourceIpv6 = 22,
    DestinationIpv6 = 23,
    PortType = 24,
    SourcePort = 25,
    DestinationPort = 26,
};

int padding(int length)
{
    return (alignment - length % alignment) % alignment;
}

void put(QDataStream& out, Tag tag, const QByteArray& value)
{
    const int length = static_cast<int>(value.size());
    out << static_cast<quint16>(tag) << static_cast<quint16>(length + padding(length));
    const QByteArray padded = value + QByteArray(padding(length), '\0');
    out.writeRawData(padded.constData(), static_cast<int>(padded.size()));
}

void put(QDataStream& out, Tag tag, quint32 value)
{
    out << static_cast<quint16>(tag) << static_cast<quint16>(sizeof value) << value;
}

// One that is not known is of the same kind, and all zero.
void putAddress(QDataStream& out, Tag ipv4, Tag ipv6, const QHostAddress& address, bool isIpv6)
{
    if (isIpv6) {
        const Q_IPV6ADDR bytes = address.toIPv6Address();
        put(out, ipv6, QByteArray(reinterpret_cast<const char*>(bytes.c), sizeof bytes.c));
    } else {
        put(out, ipv4, address.toIPv4Address());
    }
}

quint32 number(const QByteArray& value)
{
    quint32 result = 0;
    QDataStream(value) >> result;
    return result;
}

QHostAddress address(const QByteArray& value)
{
    constexpr int ipv6Length = 16;
    return value.size() == ipv6Length
               ? QHostAddress(reinterpret_cast<const quint8*>(value.constData()))
               : QHostAddress(number(value));
}

} // namespace

Medium CaptureRecord::mediumOf(const QByteArray& link)
{
    const QByteArray scheme = link.left(link.indexOf("://")).toLower();
    const auto* const found = std::find(std::next(std::begin(schemes)), std::end(schemes), scheme);
    return found == std::end(schemes) ? Medium::Other
                                      : static_cast<Medium>(found - std::begin(schemes));
}

QByteArray CaptureRecord::encode() const
{
    QByteArray packet;
    QDataStream out(&packet, QIODevice::WriteOnly); // high byte first
    put(out, DissectorName, QByteArray(dissector));
    if (!device.address.isNull()) {
        const bool comes = what == What::Received;
        const auto& from = comes ? device : here;
        const auto& to = comes ? here : device;
        const bool isIpv6 = device.address.protocol() == QAbstractSocket::IPv6Protocol;
        putAddress(out, SourceIpv4, SourceIpv6, from.address, isIpv6);
        putAddress(out, DestinationIpv4, DestinationIpv6, to.address, isIpv6);
        put(out, PortType, medium == Medium::Osd ? tcp : udp);
        put(out, SourcePort, from.port);
        put(out, DestinationPort, to.port);
    }
    put(out, End, QByteArray());
    const QByteArray name = link.left(nameLimit);
    out << version << static_cast<quint8>(medium) << static_cast<quint8>(what)
        << static_cast<quint8>(name.size());
    return packet + name + bytes;
}

std::optional<CaptureRecord> CaptureRecord::decode(const QByteArray& packet)
{
    CaptureRecord record;
    Endpoint from;
    Endpoint to;
    bool isOurs = false;
    QDataStream in(packet);
    for (quint16 tag = DissectorName; tag != End && in.status() == QDataStream::Ok;) {
        quint16 length = 0;
        in >> tag >> length;
        QByteArray value(length, '\0');
        if (in.readRawData(value.data(), length) != length) {
            return std::nullopt;
        }
        switch (tag) {
        case DissectorName:
            isOurs = qstrcmp(value.constData(), dissector) == 0;
            break;
        case SourceIpv4:
        case SourceIpv6:
            from.address = address(value);
            break;
        case DestinationIpv4:
        case DestinationIpv6:
            to.address = address(value);
            break;
        case SourcePort:
            from.port = static_cast<quint16>(number(value));
            break;
        case DestinationPort:
            to.port = static_cast<quint16>(number(value));
            break;
        default:
            break;
        }
    }
    quint8 written = 0;
    quint8 medium = 0;
    quint8 what = 0;
    quint8 nameLength = 0;
    in >> written >> medium >> what >> nameLength;
    const auto rest = static_cast<int>(in.device()->pos());
    if (in.status() != QDataStream::Ok || !isOurs || written != version ||
        medium > static_cast<quint8>(Medium::Osd) ||
        what > static_cast<quint8>(What::Reinitialised) || packet.size() < rest + nameLength) {
        return std::nullopt;
    }
    record.medium = static_cast<Medium>(medium);
    record.what = static_cast<What>(what);
    record.link = packet.mid(rest, nameLength);
    record.bytes = packet.mid(rest + nameLength);
    const bool comes = record.what == What::Received;
    record.device = comes ? from : to;
    record.here = comes ? to : from;
    return record;
}
