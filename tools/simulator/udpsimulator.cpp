// SPDX-License-Identifier: MIT
#include "udpsimulator.h"

#include <QNetworkDatagram>
#include <QVariant>

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
    const QVariant receiveBuffer = 4 * 1024 * 1024;
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
        const QNetworkDatagram command = socket.receiveDatagram();
        const auto answer =
            [this, host = command.senderAddress(),
             port = static_cast<quint16>(command.senderPort())](const QByteArray& bytes) {
                return socket.writeDatagram(bytes, host, port);
            };
        if (command.isValid()) {
            received(command.data(), answer);
        }
    }
}
