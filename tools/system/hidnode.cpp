// SPDX-License-Identifier: MIT
#include "hidnode.h"

#include <QDir>
#include <QFile>

#include <algorithm>

namespace
{

const QString classDirectory = "/sys/class/hidraw/";
constexpr quint16 usbBus = 3;

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
    node.path = "/dev/" + entry;
    QFile file(classDirectory + entry + "/device/uevent");
    if (!file.open(QIODevice::ReadOnly)) {
        return node;
    }
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QString value = QString::fromUtf8(line.mid(line.indexOf('=') + 1)).trimmed();
        if (line.startsWith("HID_ID=")) { // 0003:000004B4:00001008: bus, vendor, product
            const auto id = [&value](int index) {
                const QString digits = value.section(':', index, index);
                return static_cast<quint16>(digits.toUInt(nullptr, 16));
            };
            node.bus = id(0);
            node.vendorId = id(1);
            node.productId = id(2);
        } else if (line.startsWith("HID_NAME=")) {
            node.name = printable(value);
        }
    }
    return node;
}

QString hexId(quint16 id)
{
    return QString("%1").arg(id, 4, 16, QChar('0'));
}

} // namespace

QString HidNode::address() const
{
    return QString("usb://%1:%2").arg(hexId(vendorId), hexId(productId));
}

// Only devices on USB have the attributes of one above them; all have their ids in their name.
QString HidNode::rule() const
{
    const QString match =
        bus == usbBus ? QString("ATTRS{idVendor}==\"%1\", ATTRS{idProduct}==\"%2\"")
                            .arg(hexId(vendorId), hexId(productId))
                      : QString("KERNELS==\"%1:%2:%3.*\"")
                            .arg(hexId(bus), hexId(vendorId).toUpper(), hexId(productId).toUpper());
    return QString("KERNEL==\"hidraw*\", SUBSYSTEM==\"hidraw\", %1, TAG+=\"uaccess\"").arg(match);
}

std::vector<HidNode> HidNode::all()
{
    std::vector<HidNode> nodes;
    for (const QString& entry : QDir(classDirectory).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        nodes.push_back(read(entry));
    }
    std::sort(nodes.begin(), nodes.end(), [](const HidNode& left, const HidNode& right) {
        return std::make_pair(left.path.size(), left.path) <
               std::make_pair(right.path.size(), right.path);
    });
    return nodes;
}

std::vector<HidNode> HidNode::with(quint16 vendorId, quint16 productId)
{
    std::vector<HidNode> nodes;
    for (const HidNode& node : all()) {
        if (node.vendorId == vendorId && node.productId == productId) {
            nodes.push_back(node);
        }
    }
    return nodes;
}
