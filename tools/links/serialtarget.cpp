// SPDX-License-Identifier: MIT
#include "core_serialport.h"
#include "fileaccess.h"
#include "linkregistry.h"
#include "ptysimulator.h"
#include "toolerror.h"
#include "utility_manage.h"
#include "vela_core_serialport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

namespace
{

constexpr int baudLimit = 4000000;
constexpr qint64 nodeLagMs = 300; // a device's node goes a moment after its line
constexpr QSerialPort::Parity parities[] = {QSerialPort::NoParity, QSerialPort::EvenParity,
                                            QSerialPort::OddParity, QSerialPort::SpaceParity,
                                            QSerialPort::MarkParity};
constexpr QSerialPort::StopBits stopBits[] = {QSerialPort::OneStop, QSerialPort::OneAndHalfStop,
                                              QSerialPort::TwoStop};
constexpr QSerialPort::FlowControl flows[] = {
    QSerialPort::NoFlowControl, QSerialPort::HardwareControl, QSerialPort::SoftwareControl};

// Why a port that this user may open is not his.
QString refusal(const QSerialPort& port, const QString& path)
{
    if (port.error() != QSerialPort::PermissionError) {
        return port.errorString();
    }
    const QString holder = fileaccess::lineHolder(path);
    return holder.isEmpty()
               ? QString("%1: another program may have it: end that first").arg(port.errorString())
               : QString("%1 has it: end that first").arg(holder);
}

class SerialTarget : public LinkTarget
{
public:
    explicit SerialTarget(const LinkAddress& written) : LinkTarget(written)
    {
        const auto list = [](const char* words) { return QString::fromLatin1(words).split(' '); };
        address.allowOptions(list("baud data parity stop flow"));
        baud = address.has("baud") ? address.number("baud", 1, baudLimit) : baud;
        dataBits = address.has("data") ? address.number("data", 5, 8) : dataBits;
        parity = address.choice("parity", list("none even odd space mark"), 0);
        stop = address.choice("stop", list("1 1.5 2"), 0);
        flow = address.choice("flow", list("none hardware software"), 0);
    }

    std::vector<LinkPlace> places() const override
    {
        LinkPlace place;
        place.node = path();
        place.baud = baud;
        return {place};
    }

    std::unique_ptr<DeviceLink> open(bool /*broadcast*/) const override
    {
        if (address.place.isEmpty()) {
            address.refuse("port", QString(), "one like /dev/ttyUSB0; see coremanage ports");
        }
        return isVela() ? openOver<Vela_Core_SerialPort>() : openOver<Core_SerialPort>();
    }

    std::unique_ptr<Simulation> simulate(const SimulatedDevice::Settings& settings) const override
    {
        SimulatedDevice::Settings framed = settings;
        framed.framing = isVela() ? devicecodec::Framing::Binary : devicecodec::Framing::Text;
        return std::make_unique<PtySimulator>(address.scheme, address.place, framed);
    }

private:
    bool isVela() const { return kind().fields == FieldSet::BinaryHead; }

    QString path() const
    {
        return address.place.startsWith('/') ? address.place : "/dev/" + address.place;
    }

    template <class Line>
    std::unique_ptr<DeviceLink> openOver() const
    {
        auto line = std::make_unique<Line>();
        line->setDeviceType(Utility_Manage::getDeviceType());
        if (!line->openSerialPort(address.place, static_cast<QSerialPort::BaudRate>(baud),
                                  stopBits[stop], parities[parity], flows[flow],
                                  static_cast<QSerialPort::DataBits>(dataBits))) {
            const QString reason =
                QFileInfo::exists(path())
                    ? fileaccess::obstacle(path())
                    : QString("there is no %1: coremanage ports lists what there is").arg(path());
            throw LinkDown(QString("%1: %2").arg(
                address.text, reason.isEmpty() ? refusal(line->port(), path()) : reason));
        }
        QObject::connect(&line->port(), &QSerialPort::errorOccurred, line.get(),
                         &Line::handleError);
        const QSerialPort& port = line->port();
        const auto whyLost = [&port, path = path(), since = std::make_shared<QElapsedTimer>()] {
            if (port.isOpen()) {
                return QString();
            }
            if (!QFileInfo::exists(path)) {
                return QString("the device has gone: was it unplugged?");
            }
            if (!since->isValid()) {
                since->start();
            }
            return since->hasExpired(nodeLagMs) ? QString("the line was hung up") : QString();
        };
        const auto sendRaw = [to = line.get()](const QByteArray& bytes) { to->sendComData(bytes); };
        CoreLink::watch(*line);
        return std::make_unique<CoreLink>(std::move(line), kind().fields, QString(), whyLost,
                                          sendRaw);
    }

    int baud = QSerialPort::Baud115200;
    int dataBits = QSerialPort::Data8;
    int parity; // these three: places in the tables above
    int stop;
    int flow;
};

} // namespace

std::unique_ptr<LinkTarget> linktargets::serial(const LinkAddress& address)
{
    return std::make_unique<SerialTarget>(address);
}
