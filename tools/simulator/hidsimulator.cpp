// SPDX-License-Identifier: MIT
#include "hidsimulator.h"

#include <exception>

namespace
{

bool isLoneCommand(const QByteArray& data)
{
    return data.startsWith("<T") && data.size() > devicecodec::textHeadSize &&
           data.mid(devicecodec::textHeadSize).count('\0') ==
               data.size() - devicecodec::textHeadSize;
}

} // namespace

HidSimulator::HidSimulator(quint16 vendorId, quint16 productId,
                           const SimulatedDevice::Settings& settings)
    : SimulatedLink(Medium::Stream, settings), vendor(vendorId), product(productId)
{
}

HidSimulator::~HidSimulator() = default;

bool HidSimulator::open()
{
    try {
        testbed = std::make_unique<HidTestbed>();
        hid = std::make_unique<EmulatedHid>(*testbed, vendor, product,
                                            [this](const std::string& report) { arrive(report); });
    } catch (const std::exception& error) {
        fail(QString::fromLocal8Bit(error.what()));
        return false;
    }
    return true;
}

QString HidSimulator::address() const
{
    return QStringLiteral("usb://%1:%2")
        .arg(vendor, 4, 16, QLatin1Char('0'))
        .arg(product, 4, 16, QLatin1Char('0'));
}

QString HidSimulator::hint() const
{
    return QStringLiteral("for the tool in another terminal: export %1=%2")
        .arg(QLatin1String(HidTestbed::locationVariable), testbed->root());
}

void HidSimulator::hangUp(Fault /*how*/)
{
    hid->unplug();
    Q_EMIT lost(QStringLiteral("unplugged, as asked"));
}

void HidSimulator::arrive(const std::string& report)
{
    {
        const std::lock_guard guard(lock);
        arrived.push_back(report);
    }
    QMetaObject::invokeMethod(this, "take", Qt::QueuedConnection);
}

void HidSimulator::take()
{
    std::deque<std::string> taken;
    {
        const std::lock_guard guard(lock);
        taken.swap(arrived);
    }
    hid->forgetWritten();
    for (const std::string& report : taken) {
        const QByteArray data = QByteArray::fromStdString(report).mid(1);
        received(isLoneCommand(data) ? data.left(devicecodec::textHeadSize) : data,
                 [this](const QByteArray& bytes) { return write(bytes); });
    }
}

qint64 HidSimulator::write(const QByteArray& bytes)
{
    if (bytes.startsWith("<F")) {
        flush();
    }
    if (pending.isEmpty()) {
        QMetaObject::invokeMethod(this, &HidSimulator::flush, Qt::QueuedConnection);
    }
    pending.append(bytes);
    return bytes.size();
}

void HidSimulator::flush()
{
    hid->sendPadded(pending);
    pending.clear();
}
