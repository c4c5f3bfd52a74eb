// SPDX-License-Identifier: MIT
#include "uhiddevice.h"

#include "eventually.h"

#include <cstring>
#include <fcntl.h>
#include <linux/input.h>
#include <linux/uhid.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace
{

constexpr int readTimeoutMs = 20;

} // namespace

UhidDevice::UhidDevice(quint16 vendorId, quint16 productId)
    : descriptorOfUhid(open("/dev/uhid", O_RDWR | O_CLOEXEC))
{
    uhid_event event{};
    event.type = UHID_CREATE2;
    auto& request = event.u.create2;
    std::strcpy(reinterpret_cast<char*>(request.name), "uhid");
    std::strcpy(reinterpret_cast<char*>(request.uniq), "1");
    const QByteArray reports = descriptor();
    std::memcpy(request.rd_data, reports.constData(), static_cast<std::size_t>(reports.size()));
    request.rd_size = static_cast<quint16>(reports.size());
    request.bus = BUS_USB;
    request.vendor = vendorId;
    request.product = productId;
    const int before = nodes();
    if (write(descriptorOfUhid, &event, sizeof(event)) != sizeof(event) ||
        !eventually([before] { return nodes() > before; })) {
        throw std::runtime_error("the kernel makes no uhid device");
    }
    startCollecting();
}

UhidDevice::~UhidDevice()
{
    unplug();
}

bool UhidDevice::send(const QByteArray& report)
{
    uhid_event event{};
    event.type = UHID_INPUT2;
    event.u.input2.size = static_cast<quint16>(report.size());
    std::memcpy(event.u.input2.data, report.constData(), static_cast<std::size_t>(report.size()));
    return write(descriptorOfUhid, &event, sizeof(event)) == sizeof(event);
}

void UhidDevice::unplug()
{
    stopCollecting();
    if (descriptorOfUhid >= 0) {
        close(descriptorOfUhid);
        descriptorOfUhid = -1;
    }
}

// The report number comes first here.
bool UhidDevice::readOne(QByteArray& report)
{
    report.clear();
    pollfd node{descriptorOfUhid, POLLIN, 0};
    if (poll(&node, 1, readTimeoutMs) == 0) {
        return true;
    }
    uhid_event event{};
    if (read(descriptorOfUhid, &event, sizeof(event)) <= 0) {
        return false;
    }
    if (event.type == UHID_OUTPUT && event.u.output.size > 0) {
        report = QByteArray(reinterpret_cast<const char*>(event.u.output.data) + 1,
                            event.u.output.size - 1);
    }
    return true;
}
