// SPDX-License-Identifier: MIT
#include "emulatedhid.h"

#include "hidtestbed.h"

#include <QFile>

#include <umockdev.h>

#include <cerrno>
#include <linux/hidraw.h>
#include <pty.h>
#include <stdexcept>
#include <termios.h>
#include <unistd.h>

namespace
{

QByteArray hexDigits(quint32 value, int width)
{
    return QByteArray::number(value, 16).toUpper().rightJustified(width, '0');
}

QString takeText(gchar* text)
{
    QString taken = QString::fromUtf8(text);
    g_free(text);
    return taken;
}

gint descriptorSize()
{
    return 34; // of one that announces reports of 64 bytes each way, without numbers
}

} // namespace

EmulatedHid::EmulatedHid(HidTestbed& testbed, quint16 vendorId, quint16 productId, Listener heard)
    : bed(testbed), listener(std::move(heard)),
      node(QStringLiteral("/dev/hidraw%1").arg(testbed.nextNumber()))
{
    addToBus(vendorId, productId);
    makeNode();
    attachHandlers();
}

EmulatedHid::~EmulatedHid()
{
    holdWrites(false);
    unplug();
    umockdev_testbed_detach_ioctl(bed.testbed(), node.toUtf8().constData(), nullptr);
    g_object_unref(handlers);
    close(slave);
}

void EmulatedHid::addToBus(quint16 vendorId, quint16 productId)
{
    const QByteArray number = node.mid(11).toUtf8();
    const QByteArray vendor = hexDigits(vendorId, 4);
    const QByteArray product = hexDigits(productId, 4);
    const QByteArray port = "1-" + number;
    auto* const testbed = bed.testbed();
    usbPath = takeText(umockdev_testbed_add_device(
        testbed, "usb", port.constData(), nullptr, "idVendor", vendor.toLower().constData(),
        "idProduct", product.toLower().constData(), "manufacturer", "Emulated", "product", "HID",
        "serial", "1", "bcdDevice", "0100", nullptr, "DEVTYPE", "usb_device", nullptr));
    const QString interfacePath = takeText(umockdev_testbed_add_device(
        testbed, "usb", (port + ":1.0").constData(), usbPath.toUtf8().constData(),
        "bInterfaceNumber", "00", nullptr, "DEVTYPE", "usb_interface", nullptr));
    const QByteArray name = "0003:" + vendor + ':' + product + ".000" + number;
    const QByteArray ids = "0003:0000" + vendor + ":0000" + product;
    const QString hidPath = takeText(umockdev_testbed_add_device(
        testbed, "hid", name.constData(), interfacePath.toUtf8().constData(), nullptr, "HID_ID",
        ids.constData(), "HID_NAME", "Emulated HID", "HID_UNIQ", "1", nullptr));
    hidrawPath = takeText(umockdev_testbed_add_device(
        testbed, "hidraw", ("hidraw" + number).constData(), hidPath.toUtf8().constData(), nullptr,
        "DEVNAME", node.toUtf8().constData(), "MAJOR", "240", "MINOR", number.constData(),
        nullptr));
    umockdev_testbed_set_attribute_link(testbed, hidrawPath.toUtf8().constData(), "device", "..");
}

void EmulatedHid::makeNode()
{
    termios settings{};
    cfmakeraw(&settings);
    settings.c_cflag |= CREAD | CS8;
    char name[PATH_MAX];
    if (openpty(&master, &slave, name, &settings, nullptr) != 0) {
        throw std::runtime_error("no pseudo-terminal for an emulated HID device");
    }
    QFile::link(QString::fromLocal8Bit(name), bed.root() + node);
}

void EmulatedHid::attachHandlers()
{
    handlers = umockdev_ioctl_base_new();
    g_signal_connect(handlers, "handle-ioctl", G_CALLBACK(onIoctl), this);
    g_signal_connect(handlers, "handle-read", G_CALLBACK(onRead), this);
    g_signal_connect(handlers, "handle-write", G_CALLBACK(onWrite), this);
    if (!umockdev_testbed_attach_ioctl(bed.testbed(), node.toUtf8().constData(), handlers,
                                       nullptr)) {
        throw std::runtime_error("an emulated HID device cannot answer its node");
    }
}

// The first thing that hidapi asks of a node it has opened.
int EmulatedHid::onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    if (umockdev_ioctl_client_get_request(client) != HIDIOCGRDESCSIZE) {
        umockdev_ioctl_client_complete(client, -1, ENOTTY);
        return TRUE;
    }
    static_cast<EmulatedHid*>(self)->empty();
    gint size = descriptorSize();
    UMockdevIoctlData* const answer = umockdev_ioctl_data_resolve(
        umockdev_ioctl_client_get_arg(client), 0, sizeof(size), nullptr);
    umockdev_ioctl_data_update(answer, 0, reinterpret_cast<guint8*>(&size), sizeof(size));
    umockdev_ioctl_data_unref(answer);
    umockdev_ioctl_client_complete(client, 0, 0);
    return TRUE;
}

int EmulatedHid::onRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    auto* const hid = static_cast<EmulatedHid*>(self);
    QByteArray report;
    {
        const std::lock_guard guard(hid->lock);
        if (hid->master < 0 || hid->input.empty()) {
            umockdev_ioctl_client_complete(client, -1, hid->master < 0 ? EIO : EAGAIN);
            return TRUE;
        }
        report = hid->input.front();
        hid->input.pop_front();
        char mark = 0;
        [[maybe_unused]] const auto taken = read(hid->slave, &mark, 1);
    }
    UMockdevIoctlData* const buffer = umockdev_ioctl_client_get_arg(client);
    const int size = qMin(report.size(), buffer->data_len);
    umockdev_ioctl_data_update(buffer, 0, reinterpret_cast<guint8*>(report.data()), size);
    umockdev_ioctl_client_complete(client, size, 0);
    return TRUE;
}

int EmulatedHid::onWrite(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    auto* const hid = static_cast<EmulatedHid*>(self);
    guint8* bytes = nullptr;
    gint size = 0;
    umockdev_ioctl_data_retrieve(umockdev_ioctl_client_get_arg(client), &bytes, &size);
    const QByteArray report(reinterpret_cast<const char*>(bytes), size);
    g_free(bytes);
    int error = 0;
    int count = -1;
    {
        std::unique_lock guard(hid->lock);
        hid->heldWrites += hid->isHolding ? 1 : 0;
        hid->released.wait(guard, [hid] { return !hid->isHolding; });
        if (hid->master < 0) {
            error = ENODEV;
        } else if (hid->writesLeft == 0) {
            error = EPIPE;
        } else {
            hid->writesLeft -= hid->writesLeft > 0 ? 1 : 0;
            hid->output.push_back(report);
            count = hid->writeCount < 0 ? size : hid->writeCount;
        }
    }
    umockdev_ioctl_client_complete(client, count, error);
    if (error == 0 && hid->listener) {
        hid->listener(report);
    }
    return TRUE;
}

void EmulatedHid::empty()
{
    const std::lock_guard guard(lock);
    input.clear();
    tcflush(slave, TCIFLUSH);
}

bool EmulatedHid::send(const QByteArray& report)
{
    const std::lock_guard guard(lock);
    if (master < 0 || input.size() >= queueLength) {
        return false;
    }
    input.push_back(report);
    const char mark = 1;
    return write(master, &mark, 1) == 1;
}

bool EmulatedHid::sendPadded(const QByteArray& bytes)
{
    bool isTaken = true;
    for (int start = 0; start < bytes.size(); start += reportData) {
        isTaken = send(bytes.mid(start, reportData).leftJustified(reportData, '\0')) && isTaken;
    }
    return isTaken;
}

int EmulatedHid::unread() const
{
    const std::lock_guard guard(lock);
    return static_cast<int>(input.size());
}

std::vector<QByteArray> EmulatedHid::written() const
{
    const std::lock_guard guard(lock);
    return output;
}

void EmulatedHid::refuseWrites(bool on)
{
    refuseWritesAfter(on ? 0 : -1);
}

void EmulatedHid::refuseWritesAfter(int count)
{
    const std::lock_guard guard(lock);
    writesLeft = count;
}

void EmulatedHid::countWritesAs(int count)
{
    const std::lock_guard guard(lock);
    writeCount = count;
}

void EmulatedHid::holdWrites(bool on)
{
    const std::lock_guard guard(lock);
    isHolding = on;
    released.notify_all();
}

int EmulatedHid::held() const
{
    const std::lock_guard guard(lock);
    return heldWrites;
}

void EmulatedHid::unplug()
{
    {
        const std::lock_guard guard(lock);
        if (master < 0) {
            return;
        }
        close(master);
        master = -1;
        input.clear();
    }
    umockdev_testbed_remove_device(bed.testbed(), usbPath.toUtf8().constData());
    QFile::remove(bed.root() + node);
}
