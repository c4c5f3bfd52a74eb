// SPDX-License-Identifier: MIT
#include "usbtarget.h"

#include "core_usb.h"
#include "corelink.h"
#include "devicedemo.h"
#include "hidemulation.h"
#include "hidnode.h"
#include "emulatedhid.h"
#include "narrator.h"
#include "toolerror.h"
#include "utility_manage.h"

#include <QElapsedTimer>
#include <QRegularExpression>

#include <algorithm>

namespace
{

constexpr int hexadecimal = 16;

// The reader takes a report every 100 ms and what it costs, and the parser looks every 20 ms: while
// reports wait to be read, replies are no further apart than this, and otherwise they are soon.
constexpr qint64 longestGapMs = 130;
constexpr qint64 watchedTimeMs = 2000;

class UsbCoreLink : public CoreLink
{
public:
    UsbCoreLink(std::unique_ptr<ICoreBase> line, std::vector<HidNode> devices)
        : CoreLink(std::move(line), FieldSet::TextBody, QString()), nodes(std::move(devices))
    {
        clock.start();
    }

    std::vector<Reply> takeReplies() override
    {
        auto replies = CoreLink::takeReplies();
        if (!replies.empty()) {
            const qint64 now = clock.elapsed();
            closeSince = now - last > longestGapMs ? now : closeSince;
            last = now;
        }
        return replies;
    }

    QString warning() override
    {
        if (warned || last - closeSince < watchedTimeMs) {
            return {};
        }
        warned = true;
        return QStringLiteral("replies come as fast as reports are read, ten a second: more may be "
                              "waiting, and while 63 wait the system drops new ones");
    }

    // The transport stays open over a device that is gone. With several of the same ids, the one
    // that is open may be any.
    QString problem() const override
    {
        const bool isThere = std::any_of(nodes.begin(), nodes.end(),
                                         [](const HidNode& node) { return node.exists(); });
        return isThere ? QString() : QStringLiteral("the device has gone");
    }

private:
    std::vector<HidNode> nodes; // that the device may be
    QElapsedTimer clock;
    qint64 last = 0;
    qint64 closeSince = 0; // replies have followed closely
    bool warned = false;
};

class UsbTarget : public LinkTarget
{
public:
    UsbTarget(LinkAddress written, quint16 vendor, quint16 product)
        : text(std::move(written)), vendorId(vendor), productId(product)
    {
    }

    FieldSet fields() const override { return FieldSet::TextBody; }

    Faulty faulty() const override { return Faulty::Stream; }

    void check(const Command& command) const override
    {
        if (command.record.sendMode != 0) {
            throw BadInput(QStringLiteral("--broadcast: there is one device at usb://"));
        }
    }

    std::unique_ptr<DeviceLink> open(bool /*broadcast*/) const override
    {
        auto line = std::make_unique<Core_USB>();
        line->setDeviceType(Utility_Manage::getDeviceType());
        if (!line->openUSB(vendorId, productId)) {
            throw LinkDown(QStringLiteral("%1: %2").arg(text.text, obstacle()));
        }
        return std::make_unique<UsbCoreLink>(std::move(line), HidNode::with(vendorId, productId));
    }

    std::unique_ptr<Simulation> simulate(const SimulatedDevice::Settings& settings) const override
    {
        const QString reason = hidemulation::obstacle();
        if (!reason.isEmpty()) {
            throw LinkDown(QStringLiteral("%1: %2").arg(text.text, reason));
        }
        return hidemulation::device(vendorId, productId, settings);
    }

private:
    QString obstacle() const
    {
        for (const HidNode& node : HidNode::with(vendorId, productId)) {
            const QString reason = node.obstacle();
            return node.path + QStringLiteral(": ") +
                   (reason.isEmpty()
                        ? QStringLiteral("it cannot be opened")
                        : reason +
                              QStringLiteral(": coremanage devices shows the rule that helps"));
        }
        const QString unseen = qEnvironmentVariableIsSet(HidTestbed::locationVariable)
                                   ? hidemulation::obstacle()
                                   : QString();
        return unseen.isEmpty()
                   ? QStringLiteral(
                         "there is no such device: coremanage devices lists what there is")
                   : unseen;
    }

    LinkAddress text;
    quint16 vendorId;
    quint16 productId;
};

} // namespace

std::unique_ptr<LinkTarget> usbtarget::parse(const LinkAddress& address)
{
    address.allowOptions({});
    static const QRegularExpression ids(
        QRegularExpression::anchoredPattern(QStringLiteral("([0-9a-fA-F]{4}):([0-9a-fA-F]{4})")));
    const auto match = ids.match(address.target);
    if (!match.hasMatch()) {
        address.refuse(QStringLiteral("\"%1\" is no pair of ids: write usb://04b4:1008, and see "
                                      "coremanage devices")
                           .arg(address.target));
    }
    const auto id = [&match](int group) {
        return static_cast<quint16>(match.captured(group).toUInt(nullptr, hexadecimal));
    };
    return std::make_unique<UsbTarget>(address, id(1), id(2));
}

bool usbtarget::demonstrate(Narrator& narrator)
{
    const QString reason = hidemulation::obstacle();
    if (!reason.isEmpty()) {
        narrator.detail(QStringLiteral("Not shown: ") + reason);
        return true;
    }
    constexpr int burst = 20; // ten reports a second are read
    return devicedemo::run(narrator, QStringLiteral("usb://04b4:1008"), burst);
}
