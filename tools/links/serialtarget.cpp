// SPDX-License-Identifier: MIT
#include "serialtarget.h"

#include "core_serialport.h"
#include "corelink.h"
#include "decimal.h"
#include "devicedemo.h"
#include "fileholder.h"
#include "filerights.h"
#include "ptysimulator.h"
#include "toolerror.h"
#include "utility_manage.h"
#include "vela_core_serialport.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace
{

template <class Value>
struct Choice {
    const char* text;
    Value value;
};

constexpr Choice<QSerialPort::DataBits> dataBitChoices[] = {{"5", QSerialPort::Data5},
                                                            {"6", QSerialPort::Data6},
                                                            {"7", QSerialPort::Data7},
                                                            {"8", QSerialPort::Data8}};
constexpr Choice<QSerialPort::Parity> parityChoices[] = {{"none", QSerialPort::NoParity},
                                                         {"even", QSerialPort::EvenParity},
                                                         {"odd", QSerialPort::OddParity},
                                                         {"space", QSerialPort::SpaceParity},
                                                         {"mark", QSerialPort::MarkParity}};
constexpr Choice<QSerialPort::StopBits> stopBitChoices[] = {
    {"1", QSerialPort::OneStop}, {"1.5", QSerialPort::OneAndHalfStop}, {"2", QSerialPort::TwoStop}};
constexpr Choice<QSerialPort::FlowControl> flowChoices[] = {
    {"none", QSerialPort::NoFlowControl},
    {"hardware", QSerialPort::HardwareControl},
    {"software", QSerialPort::SoftwareControl}};
constexpr int mostBaud = 4000000;

template <class Value, std::size_t count>
Value chosen(const LinkAddress& address, const QString& key, const Choice<Value> (&choices)[count],
             Value usual)
{
    if (!address.options.contains(key)) {
        return usual;
    }
    QStringList right;
    for (const auto& choice : choices) {
        if (address.options.value(key) == QLatin1String(choice.text)) {
            return choice.value;
        }
        right << QLatin1String(choice.text);
    }
    address.refuse(QStringLiteral("%1 is one of %2").arg(key, right.join(QStringLiteral(", "))));
}

// Why a port that this user may open is not his. A simulated device has its own port open as well,
// but only who uses it has its lock file.
QString refusal(const QSerialPort& port, const QString& path)
{
    if (port.error() != QSerialPort::PermissionError) {
        return port.errorString();
    }
    const QByteArray device = QFile::encodeName(QFileInfo(path).canonicalFilePath());
    const QByteArray lock = "/LCK.." + QFile::encodeName(port.portName()).replace('/', '_');
    QString holder =
        fileholder::find([&lock](const QByteArray& name) { return name.endsWith(lock); });
    if (holder.isEmpty()) {
        holder = fileholder::find([&device](const QByteArray& name) { return name == device; });
    }
    return holder.isEmpty() ? QStringLiteral("%1: another program may have it: end that first")
                                  .arg(port.errorString())
                            : QStringLiteral("%1 has it: end that first").arg(holder);
}

// A link over a serial line, which closes its port when the device goes.
template <class Line>
class SerialCoreLink : public CoreLink
{
public:
    SerialCoreLink(std::unique_ptr<Line> line, FieldSet fields)
        : CoreLink(std::move(line), fields, QString())
    {
    }

    QString problem() const override { return *lost; }

    static std::unique_ptr<DeviceLink> over(std::unique_ptr<Line> line, FieldSet fields)
    {
        QSerialPort* port = &line->port();
        Line* transport = line.get();
        auto link = std::make_unique<SerialCoreLink>(std::move(line), fields);
        QObject::connect(port, &QSerialPort::errorOccurred, transport,
                         [port, transport, lost = link->lost](QSerialPort::SerialPortError error) {
                             transport->handleError(error);
                             if (!port->isOpen() && lost->isEmpty()) {
                                 *lost = QStringLiteral("the device has gone");
                             }
                         });
        return link;
    }

private:
    std::shared_ptr<QString> lost = std::make_shared<QString>();
};

template <class Line>
class SerialTarget : public LinkTarget
{
public:
    SerialTarget(LinkAddress written, FieldSet set, devicecodec::Framing deviceFraming)
        : text(std::move(written)), fieldSet(set), framing(deviceFraming)
    {
        text.allowOptions({QStringLiteral("baud"), QStringLiteral("data"), QStringLiteral("parity"),
                           QStringLiteral("stop"), QStringLiteral("flow")});
        if (text.options.contains(QStringLiteral("baud"))) {
            baud = decimal(text.options.value(QStringLiteral("baud"))).value_or(0);
        }
        if (baud < 1 || baud > mostBaud) {
            text.refuse(QStringLiteral("baud is a number from 1 to %1").arg(mostBaud));
        }
        dataBits = chosen(text, QStringLiteral("data"), dataBitChoices, QSerialPort::Data8);
        parity = chosen(text, QStringLiteral("parity"), parityChoices, QSerialPort::NoParity);
        stopBits = chosen(text, QStringLiteral("stop"), stopBitChoices, QSerialPort::OneStop);
        flow = chosen(text, QStringLiteral("flow"), flowChoices, QSerialPort::NoFlowControl);
    }

    FieldSet fields() const override { return fieldSet; }

    Faulty faulty() const override { return Faulty::Stream; }

    void check(const Command& command) const override
    {
        if (command.record.sendMode != 0) {
            throw BadInput(QStringLiteral("--broadcast: a serial line has one device"));
        }
    }

    std::unique_ptr<DeviceLink> open(bool /*broadcast*/) const override
    {
        if (text.target.isEmpty()) {
            text.refuse(QStringLiteral("no port: write %1:///dev/ttyUSB0, and see coremanage ports")
                            .arg(text.scheme));
        }
        auto line = std::make_unique<Line>();
        line->setDeviceType(Utility_Manage::getDeviceType());
        if (!line->openSerialPort(text.target, static_cast<QSerialPort::BaudRate>(baud), stopBits,
                                  parity, flow, dataBits)) {
            const QString path = text.target.startsWith(QLatin1Char('/'))
                                     ? text.target
                                     : QStringLiteral("/dev/") + text.target;
            const QString reason = serialtarget::obstacle(path);
            throw LinkDown(QStringLiteral("%1: %2").arg(
                text.text, reason.isEmpty() ? refusal(line->port(), path) : reason));
        }
        return SerialCoreLink<Line>::over(std::move(line), fieldSet);
    }

    std::unique_ptr<Simulation> simulate(const SimulatedDevice::Settings& settings) const override
    {
        SimulatedDevice::Settings framed = settings;
        framed.framing = framing;
        return std::make_unique<PtySimulator>(text.scheme, text.target, framed);
    }

private:
    LinkAddress text;
    FieldSet fieldSet;
    devicecodec::Framing framing;
    int baud = QSerialPort::Baud115200;
    QSerialPort::DataBits dataBits;
    QSerialPort::Parity parity;
    QSerialPort::StopBits stopBits;
    QSerialPort::FlowControl flow;
};

} // namespace

std::unique_ptr<LinkTarget> serialtarget::parse(const LinkAddress& address)
{
    return std::make_unique<SerialTarget<Core_SerialPort>>(address, FieldSet::TextBody,
                                                           devicecodec::Framing::Text);
}

std::unique_ptr<LinkTarget> serialtarget::parseVela(const LinkAddress& address)
{
    return std::make_unique<SerialTarget<Vela_Core_SerialPort>>(address, FieldSet::BinaryHead,
                                                                devicecodec::Framing::Binary);
}

bool serialtarget::demonstrate(Narrator& narrator)
{
    return devicedemo::run(narrator, QStringLiteral("serial://"));
}

bool serialtarget::demonstrateVela(Narrator& narrator)
{
    return devicedemo::run(narrator, QStringLiteral("vela://"));
}

QString serialtarget::obstacle(const QString& devicePath)
{
    const QFileInfo file(devicePath);
    if (!file.exists()) {
        return QStringLiteral("there is no %1: coremanage ports lists what there is")
            .arg(devicePath);
    }
    if (access(QFile::encodeName(devicePath).constData(), R_OK | W_OK) == 0) {
        return {};
    }
    const QString reason = QString::fromLocal8Bit(std::strerror(errno));
    return filerights::groupHelps(devicePath)
               ? QStringLiteral("%1: it belongs to the group \"%2\": sudo usermod -aG %2 $USER, "
                                "and log in again")
                     .arg(reason, file.group())
               : QStringLiteral("%1 (%2)").arg(reason, filerights::of(devicePath));
}
