// SPDX-License-Identifier: MIT
#include "hidnode.h"

#include "filerights.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace
{

const QString classDirectory = QStringLiteral("/sys/class/hidraw/");

constexpr quint16 usbBus = 3;

// "0003:000004B4:00001008": bus, vendor, product.
void readIds(const QString& text, HidNode& node)
{
    const auto field = [&text](int index) {
        constexpr int hexadecimal = 16;
        return static_cast<quint16>(
            text.section(QLatin1Char(':'), index, index).toUInt(nullptr, hexadecimal));
    };
    node.bus = field(0);
    node.vendorId = field(1);
    node.productId = field(2);
}

// The device chose it: it must not move the cursor of whoever reads it.
QString printable(QString text)
{
    for (QChar& character : text) {
        character = character.isPrint() ? character : QChar(QChar::ReplacementCharacter);
    }
    return text;
}

HidNode read(const QString& entry)
{
    HidNode node;
    node.path = QStringLiteral("/dev/") + entry;
    QFile file(classDirectory + entry + QStringLiteral("/device/uevent"));
    if (!file.open(QIODevice::ReadOnly)) {
        return node;
    }
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QString value = QString::fromUtf8(line.mid(line.indexOf('=') + 1)).trimmed();
        if (line.startsWith("HID_ID=")) {
            readIds(value, node);
        } else if (line.startsWith("HID_NAME=")) {
            node.name = printable(value);
        }
    }
    return node;
}

QString hexId(quint16 id)
{
    return QStringLiteral("%1").arg(id, 4, 16, QLatin1Char('0'));
}

} // namespace

QString HidNode::address() const
{
    return QStringLiteral("usb://%1:%2").arg(hexId(vendorId), hexId(productId));
}

bool HidNode::exists() const
{
    return access(path.toLocal8Bit().constData(), F_OK) == 0;
}

QString HidNode::obstacle() const
{
    if (access(path.toLocal8Bit().constData(), R_OK | W_OK) == 0) {
        return {};
    }
    const QString reason = QString::fromLocal8Bit(std::strerror(errno));
    return QStringLiteral("%1 (%2)").arg(reason, filerights::of(path));
}

// Only devices on USB have the attributes of one above them; all have their ids in their name.
QString HidNode::rule() const
{
    const QString match =
        bus == usbBus ? QStringLiteral("ATTRS{idVendor}==\"%1\", ATTRS{idProduct}==\"%2\"")
                            .arg(hexId(vendorId), hexId(productId))
                      : QStringLiteral("KERNELS==\"%1:%2:%3.*\"")
                            .arg(hexId(bus), hexId(vendorId).toUpper(), hexId(productId).toUpper());
    return QStringLiteral("KERNEL==\"hidraw*\", SUBSYSTEM==\"hidraw\", %1, TAG+=\"uaccess\"")
        .arg(match);
}

std::vector<HidNode> HidNode::all()
{
    std::vector<HidNode> nodes;
    const QStringList entries = QDir(classDirectory).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        nodes.push_back(read(entry));
    }
    std::sort(nodes.begin(), nodes.end(), [](const HidNode& left, const HidNode& right) {
        return left.path.size() != right.path.size() ? left.path.size() < right.path.size()
                                                     : left.path < right.path;
    });
    return nodes;
}

std::vector<HidNode> HidNode::with(quint16 vendorId, quint16 productId)
{
    auto nodes = all();
    nodes.erase(std::remove_if(nodes.begin(), nodes.end(),
                               [=](const HidNode& node) {
                                   return node.vendorId != vendorId || node.productId != productId;
                               }),
                nodes.end());
    return nodes;
}
