// SPDX-License-Identifier: MIT
#include "udpsimulator.h"

UdpSimulator::UdpSimulator(const QHostAddress& chosenAddress, quint16 port,
                           const SimulatedDevice::Settings& settings)
    : SimulatedLink(Medium::Datagrams, settings), localAddress(chosenAddress), localPort(port)
{
    connect(&socket, &QUdpSocket::readyRead, this, &UdpSimulator::readAll);
}

bool UdpSimulator::open()
{
    if (!socket.bind(localAddress, localPort)) {
        failToBind(socket.error(), localPort, socket.errorString());
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
