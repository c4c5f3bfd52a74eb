// SPDX-License-Identifier: MIT
#include "emulatedhid.h"

#include <QDir>

#include <gio/gio.h>
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

constexpr gint descriptorSize = 34; // announces reports of 64 bytes each way, without numbers

// %1: number of the node, %2 and %3: ids in lower case, %4 and %5: in upper case
constexpr const char* devices = R"(P: /devices/1-%1
E: SUBSYSTEM=usb
E: DEVTYPE=usb_device
A: idVendor=%2
A: idProduct=%3
A: manufacturer=Emulated
A: product=HID
A: serial=1
A: bcdDevice=0100

P: /devices/1-%1/1-%1:1.0
E: SUBSYSTEM=usb
E: DEVTYPE=usb_interface
A: bInterfaceNumber=00

P: /devices/1-%1/1-%1:1.0/0003:%4:%5.000%1
E: SUBSYSTEM=hid
E: HID_ID=0003:0000%4:0000%5
E: HID_NAME=Emulated HID
E: HID_UNIQ=1

P: /devices/1-%1/1-%1:1.0/0003:%4:%5.000%1/hidraw%1
E: SUBSYSTEM=hidraw
E: DEVNAME=/dev/hidraw%1
E: MAJOR=240
E: MINOR=%1
L: device=..

)";

} // namespace

HidTestbed::HidTestbed() : bed(umockdev_testbed_new())
{
    // Starts GLib's own thread now, before a test counts threads or descriptors.
    g_type_ensure(G_TYPE_TASK);
    QDir(root()).mkdir(QStringLiteral("dev"));
}

HidTestbed::~HidTestbed()
{
    QDir(root() + QStringLiteral("/dev")).removeRecursively();
    g_object_unref(bed);
}

QString HidTestbed::root() const
{
    gchar* const directory = umockdev_testbed_get_root_dir(bed);
    QString text = QString::fromLocal8Bit(directory);
    g_free(directory);
    return text;
}

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
        const std::unique_lock ended(handling);
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
    const QString number = node.mid(11);
    const auto id = [](quint16 value) {
        return QStringLiteral("%1").arg(value, 4, 16, QLatin1Char('0'));
    };
    const QString text = QString::fromLatin1(devices).arg(
        number, id(vendorId), id(productId), id(vendorId).toUpper(), id(productId).toUpper());
    if (!umockdev_testbed_add_from_string(bed.testbed(), text.toUtf8().constData(), nullptr)) {
        throw std::runtime_error("an emulated HID device cannot be plugged in");
    }
    usbPath = QStringLiteral("/sys/devices/1-") + number;
}

// Replaces the node in one step, so that an open never fails meanwhile.
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
    g_signal_connect(handlers, "handle-ioctl", G_CALLBACK(handle<&EmulatedHid::control>), this);
    g_signal_connect(handlers, "handle-read", G_CALLBACK(handle<&EmulatedHid::read>), this);
    g_signal_connect(handlers, "handle-write", G_CALLBACK(handle<&EmulatedHid::write>), this);
    if (!umockdev_testbed_attach_ioctl(bed.testbed(), node.toUtf8().constData(), handlers,
                                       nullptr)) {
        throw std::runtime_error("an emulated HID device cannot answer its node");
    }
}

// Each operation returns the result of the system call, or its error as a negative number.
template <int (EmulatedHid::*operation)(UMockdevIoctlClient*)>
int EmulatedHid::handle(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    auto& hid = *static_cast<EmulatedHid*>(self);
    const std::shared_lock atWork(hid.handling);
    const int result = (hid.*operation)(client);
    umockdev_ioctl_client_complete(client, qMax(-1, result), qMax(0, -result));
    return TRUE;
}

// The first thing that hidapi asks of a node it has opened.
int EmulatedHid::control(UMockdevIoctlClient* client)
{
    if (umockdev_ioctl_client_get_request(client) != HIDIOCGRDESCSIZE) {
        return -ENOTTY;
    }
    noteOpen(client);
    gint size = descriptorSize;
    UMockdevIoctlData* const answer = umockdev_ioctl_data_resolve(
        umockdev_ioctl_client_get_arg(client), 0, sizeof(size), nullptr);
    umockdev_ioctl_data_update(answer, 0, reinterpret_cast<guint8*>(&size), sizeof(size));
    umockdev_ioctl_data_unref(answer);
    return 0;
}

int EmulatedHid::read(UMockdevIoctlClient* client)
{
    std::unique_lock guard(lock);
    const auto found = files.find(client);
    if (!isPlugged) {
        return -EIO;
    }
    if (found == files.end() || found->second.input.empty()) {
        return -EAGAIN;
    }
    OpenFile& file = found->second;
    std::string report = std::move(file.input.front());
    file.input.pop_front();
    char mark = 0;
    if (::read(file.slave, &mark, 1) != 1) {
        return -EIO;
    }
    guard.unlock();
    UMockdevIoctlData* const buffer = umockdev_ioctl_client_get_arg(client);
    const int size = qMin(static_cast<int>(report.size()), buffer->data_len);
    umockdev_ioctl_data_update(buffer, 0, reinterpret_cast<guint8*>(report.data()), size);
    return size;
}

int EmulatedHid::write(UMockdevIoctlClient* client)
{
    guint8* bytes = nullptr;
    gint size = 0;
    umockdev_ioctl_data_retrieve(umockdev_ioctl_client_get_arg(client), &bytes, &size);
    const std::string report(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    g_free(bytes);
    {
        std::unique_lock guard(lock);
        heldWrites += isHolding ? 1 : 0;
        released.wait(guard, [this] { return !isHolding; });
        if (!isPlugged) {
            return -ENODEV;
        }
        if (writesLeft == 0) {
            return -EPIPE;
        }
        writesLeft -= writesLeft > 0 ? 1 : 0;
        output.push_back(report);
        size = writeCount < 0 ? size : writeCount;
    }
    if (listener) {
        listener(report);
    }
    return size;
}

// Without a further pseudo-terminal, later opens share this one and get no reports.
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
            isTaken = ::write(file.master, &mark, 1) == 1 || isTaken;
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
    std::size_t fewest = files.empty() ? 0 : queueLength;
    for (const auto& [client, file] : files) {
        fewest = std::min(fewest, file.input.size());
    }
    return static_cast<int>(fewest);
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

void EmulatedHid::forgetWritten()
{
    const std::lock_guard guard(lock);
    output.clear();
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
