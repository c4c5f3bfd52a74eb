// SPDX-License-Identifier: MIT
#include "udpsimulator.h"

namespace
{

SimulatedDevice::Settings onDatagrams(SimulatedDevice::Settings settings)
{
    settings.framing = devicecodec::Framing::Text;
    settings.medium = Medium::Datagrams;
    return settings;
}

QString reasonOf(const QUdpSocket& socket, quint16 port)
{
    switch (socket.error()) {
    case QAbstractSocket::AddressInUseError:
        return QStringLiteral("port %1 is taken: give another one, or 0 for a free one").arg(port);
    case QAbstractSocket::SocketAccessError:
        return QStringLiteral("port %1 is for root: give one from 1024 on, or 0 for a free one")
            .arg(port);
    case QAbstractSocket::SocketAddressNotAvailableError:
        return QStringLiteral("this machine has not that address: give one of its own, or "
                              "127.0.0.1");
    default:
        return socket.errorString();
    }
}

} // namespace

UdpSimulator::UdpSimulator(const QHostAddress& chosenAddress, quint16 port,
                           const SimulatedDevice::Settings& settings)
    : SimulatedLink(onDatagrams(settings)), localAddress(chosenAddress), localPort(port)
{
    connect(&socket, &QUdpSocket::readyRead, this, &UdpSimulator::readAll);
}

bool UdpSimulator::open()
{
    if (!socket.bind(localAddress, localPort)) {
        fail(reasonOf(socket, localPort));
        return false;
    }
    constexpr int receiveBuffer = 4 * 1024 * 1024;
    socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, receiveBuffer);
    localPort = socket.localPort();
    return true;
}

QString UdpSimulator::address() const
{
    return QStringLiteral("udp://%1:%2").arg(localAddress.toString()).arg(localPort);
}

void UdpSimulator::readAll()
{
    while (socket.hasPendingDatagrams()) {
        QByteArray datagram(static_cast<int>(std::max<qint64>(0, socket.pendingDatagramSize())),
                            Qt::Uninitialized);
        QHostAddress host;
        quint16 port = 0;
        const qint64 size = socket.readDatagram(datagram.data(), datagram.size(), &host, &port);
        if (size < 0) {
            continue;
        }
        datagram.truncate(static_cast<int>(size));
        received(datagram, [this, host, port](const QByteArray& bytes) {
            return socket.writeDatagram(bytes, host, port);
        });
    }
}
