// SPDX-License-Identifier: MIT
#include "emulatedhid.h"

#include "hidtestbed.h"

#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
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

class EmulatedHid::Handling
{
public:
    explicit Handling(EmulatedHid& device) : hid(device) { add(1); }
    ~Handling() { add(-1); }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;

private:
    void add(int count)
    {
        const std::lock_guard guard(hid.lock);
        hid.handling += count;
        hid.released.notify_all();
    }

    EmulatedHid& hid;
};

EmulatedHid::EmulatedHid(HidTestbed& testbed, quint16 vendorId, quint16 productId, Listener heard)
    : bed(testbed), listener(std::move(heard)),
      node(QStringLiteral("/dev/hidraw%1").arg(testbed.nextNumber())),
      path((testbed.root() + node).toStdString())
{
    addToBus(vendorId, productId);
    if (!makeNode()) {
        throw std::runtime_error("no pseudo-terminal for an emulated HID device");
    }
    attachHandlers();
}

EmulatedHid::~EmulatedHid()
{
    holdWrites(false);
    unplug();
    umockdev_testbed_detach_ioctl(bed.testbed(), node.toUtf8().constData(), nullptr);
    {
        std::unique_lock guard(lock);
        released.wait(guard, [this] { return handling == 0; });
    }
    g_object_unref(handlers);
    for (auto& [client, file] : files) {
        g_object_unref(client);
        close(file.slave);
    }
    close(next.slave);
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

// Replaces the node in one step: it is never missing for who opens it meanwhile.
bool EmulatedHid::makeNode()
{
    termios settings{};
    cfmakeraw(&settings);
    settings.c_cflag |= CREAD | CS8;
    char name[PATH_MAX];
    OpenFile made;
    if (openpty(&made.master, &made.slave, name, &settings, nullptr) != 0) {
        return false;
    }
    const std::string fresh = path + ".next";
    if (symlink(name, fresh.c_str()) != 0 || rename(fresh.c_str(), path.c_str()) != 0) {
        close(made.master);
        close(made.slave);
        return false;
    }
    next = std::move(made);
    return true;
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
    auto* const hid = static_cast<EmulatedHid*>(self);
    const Handling handling(*hid);
    hid->noteOpen(client);
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
    const Handling handling(*hid);
    std::string report;
    const int error = hid->take(client, report);
    if (error != 0) {
        umockdev_ioctl_client_complete(client, -1, error);
        return TRUE;
    }
    UMockdevIoctlData* const buffer = umockdev_ioctl_client_get_arg(client);
    const int size = qMin(static_cast<int>(report.size()), buffer->data_len);
    umockdev_ioctl_data_update(buffer, 0, reinterpret_cast<guint8*>(report.data()), size);
    umockdev_ioctl_client_complete(client, size, 0);
    return TRUE;
}

int EmulatedHid::onWrite(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    auto* const hid = static_cast<EmulatedHid*>(self);
    const Handling handling(*hid);
    guint8* bytes = nullptr;
    gint size = 0;
    umockdev_ioctl_data_retrieve(umockdev_ioctl_client_get_arg(client), &bytes, &size);
    const std::string report(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    g_free(bytes);
    int error = 0;
    int count = -1;
    {
        std::unique_lock guard(hid->lock);
        hid->heldWrites += hid->isHolding ? 1 : 0;
        hid->released.wait(guard, [hid] { return !hid->isHolding; });
        if (!hid->isPlugged) {
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

// Where there is no further pseudo-terminal, files that are opened from then on share this one, and
// hear nothing.
void EmulatedHid::noteOpen(UMockdevIoctlClient* client)
{
    const std::lock_guard guard(lock);
    forgetClosed();
    OpenFile opened = std::move(next);
    if (!isPlugged || !makeNode()) {
        next = std::move(opened);
        return;
    }
    files.emplace(static_cast<UMockdevIoctlClient*>(g_object_ref(client)), std::move(opened));
    opensLeft -= opensLeft > 0 ? 1 : 0;
    if (opensLeft == 0) {
        unlink(path.c_str());
    }
}

// The error of a read, or 0 and the report.
int EmulatedHid::take(UMockdevIoctlClient* client, std::string& report)
{
    const std::lock_guard guard(lock);
    const auto found = files.find(client);
    if (!isPlugged) {
        return EIO;
    }
    if (found == files.end() || found->second.input.empty()) {
        return EAGAIN;
    }
    OpenFile& file = found->second;
    report = std::move(file.input.front());
    file.input.pop_front();
    char mark = 0;
    return read(file.slave, &mark, 1) == 1 ? 0 : EIO;
}

void EmulatedHid::forgetClosed()
{
    for (auto file = files.begin(); file != files.end();) {
        if (umockdev_ioctl_client_get_connected(file->first)) {
            ++file;
            continue;
        }
        g_object_unref(file->first);
        close(file->second.slave);
        if (isPlugged) {
            close(file->second.master);
        }
        file = files.erase(file);
    }
}

bool EmulatedHid::send(const QByteArray& report)
{
    const std::lock_guard guard(lock);
    forgetClosed();
    bool isTaken = false;
    for (auto& [client, file] : files) {
        if (isPlugged && file.input.size() < queueLength) {
            file.input.push_back(report.toStdString());
            const char mark = 1;
            isTaken = write(file.master, &mark, 1) == 1 || isTaken;
        }
    }
    return isTaken;
}

bool EmulatedHid::sendPadded(const QByteArray& bytes)
{
    bool isTaken = true;
    for (int start = 0; start < bytes.size(); start += reportData) {
        isTaken = send(bytes.mid(start, reportData).leftJustified(reportData, '\0')) && isTaken;
    }
    return isTaken;
}

int EmulatedHid::unread()
{
    const std::lock_guard guard(lock);
    forgetClosed();
    const auto fewest =
        std::min_element(files.begin(), files.end(), [](const auto& left, const auto& right) {
            return left.second.input.size() < right.second.input.size();
        });
    return fewest == files.end() ? 0 : static_cast<int>(fewest->second.input.size());
}

int EmulatedHid::openFiles()
{
    const std::lock_guard guard(lock);
    forgetClosed();
    return static_cast<int>(files.size());
}

std::vector<QByteArray> EmulatedHid::written() const
{
    const std::lock_guard guard(lock);
    std::vector<QByteArray> reports;
    reports.reserve(output.size());
    for (const std::string& report : output) {
        reports.push_back(QByteArray::fromStdString(report));
    }
    return reports;
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

void EmulatedHid::allowOpens(int count)
{
    const std::lock_guard guard(lock);
    opensLeft = count;
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
        if (!isPlugged) {
            return;
        }
        isPlugged = false;
        close(next.master);
        for (auto& [client, file] : files) {
            close(file.master);
            file.input.clear();
        }
    }
    umockdev_testbed_remove_device(bed.testbed(), usbPath.toUtf8().constData());
    unlink(path.c_str());
}
