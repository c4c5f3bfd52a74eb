// SPDX-License-Identifier: MIT
#include "gadgetdevice.h"

#include "eventually.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace
{

constexpr int pollTimeoutMs = 20;
constexpr int sendTimeoutMs = 90000;
const QString gadget = QStringLiteral("/sys/kernel/config/usb_gadget/hid/");
const QString controller = QStringLiteral("dummy_udc.0");

bool accepts(const QString& name, const QByteArray& value)
{
    QFile file(gadget + name);
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) &&
           file.write(value) == value.size();
}

void put(const QString& name, const QByteArray& value)
{
    if (!accepts(name, value)) {
        throw std::runtime_error("configfs refuses " + name.toStdString());
    }
}

void make(const QString& name)
{
    QDir().mkpath(gadget + name);
}

void describe()
{
    make(QStringLiteral("strings/0x409"));
    put(QStringLiteral("strings/0x409/serialnumber"), "1");
    put(QStringLiteral("strings/0x409/product"), "HID");
    make(QStringLiteral("functions/hid.0"));
    put(QStringLiteral("functions/hid.0/protocol"), "0");
    put(QStringLiteral("functions/hid.0/subclass"), "0");
    put(QStringLiteral("functions/hid.0/report_length"), QByteArray::number(KernelHid::reportData));
    put(QStringLiteral("functions/hid.0/report_desc"), KernelHid::descriptor());
    make(QStringLiteral("configs/c.1"));
    QFile::link(gadget + QStringLiteral("functions/hid.0"),
                gadget + QStringLiteral("configs/c.1/hid.0"));
}

bool isConfigured()
{
    QFile state(QStringLiteral("/sys/class/udc/") + controller + QStringLiteral("/state"));
    return state.open(QIODevice::ReadOnly) && state.readAll().trimmed() == "configured";
}

} // namespace

GadgetDevice::GadgetDevice(quint16 vendorId, quint16 productId)
{
    make(QString());
    put(QStringLiteral("idVendor"), "0x" + QByteArray::number(vendorId, 16));
    put(QStringLiteral("idProduct"), "0x" + QByteArray::number(productId, 16));
    if (!QFile::exists(gadget + QStringLiteral("functions/hid.0"))) {
        describe();
    }
    put(QStringLiteral("UDC"), controller.toLatin1());
    if (!eventually([] { return isConfigured() && nodes() > 0; })) {
        throw std::runtime_error("the host does not configure the gadget");
    }
    node = open("/dev/hidg0", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (node < 0) {
        throw std::runtime_error("no node for the gadget");
    }
    startCollecting();
}

GadgetDevice::~GadgetDevice()
{
    unplug();
}

bool GadgetDevice::send(const QByteArray& report)
{
    pollfd space{node, POLLOUT, 0};
    return poll(&space, 1, sendTimeoutMs) > 0 &&
           write(node, report.constData(), static_cast<std::size_t>(report.size())) ==
               report.size();
}

void GadgetDevice::unplug()
{
    if (node < 0) {
        return;
    }
    EXPECT_TRUE(accepts(QStringLiteral("UDC"), "\n")) << "configfs refuses to unbind the gadget";
    stopCollecting();
    close(node);
    node = -1;
}

void GadgetDevice::takeReports(bool on)
{
    on ? startCollecting() : stopCollecting();
}

bool GadgetDevice::readOne(QByteArray& report)
{
    report.clear();
    pollfd input{node, POLLIN, 0};
    if (poll(&input, 1, pollTimeoutMs) <= 0) {
        return true;
    }
    char bytes[reportData * 2];
    const auto size = read(node, bytes, sizeof(bytes));
    if (size > 0) {
        report = QByteArray(bytes, static_cast<int>(size));
    }
    return true;
}
