// SPDX-License-Identifier: MIT
// The least that a Qt program with the tool's Qt libraries does: it starts, asks a device on this
// port of loopback if one is named, and ends with the answer.
#include <QCoreApplication>
#include <QSerialPort>
#include <QUdpSocket>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QSerialPort port;
    if (argc < 2) {
        return 0;
    }
    QUdpSocket socket;
    QObject::connect(&socket, &QUdpSocket::readyRead, &application, &QCoreApplication::quit);
    socket.writeDatagram("?", QHostAddress(QHostAddress::LocalHost),
                         QByteArray(argv[1]).toUShort());
    return QCoreApplication::exec();
}
