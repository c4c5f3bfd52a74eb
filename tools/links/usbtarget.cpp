// SPDX-License-Identifier: MIT
#include "core_usb.h"
#include "emulatedhid.h"
#include "fileaccess.h"
#include "hidemulation.h"
#include "hidnode.h"
#include "linkregistry.h"
#include "toolerror.h"
#include "utility_manage.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

namespace
{

// The reader takes a report every 100 ms and what it costs, and the parser looks every 20 ms: while
// reports wait to be read, replies are no further apart than this, and otherwise they are soon.
constexpr qint64 longestGapMs = 130;
constexpr qint64 watchedTimeMs = 2000;

class UsbCoreLink : public CoreLink
{
public:
    UsbCoreLink(std::shared_ptr<ICoreBase> line, const std::vector<HidNode>& nodes,
                std::function<void(const QByteArray&)> sendRaw)
        : CoreLink(
              std::move(line), FieldSet::TextBody, QString(), [nodes] { return whyLost(nodes); },
              std::move(sendRaw))
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
        return "replies come as fast as reports are read, ten a second: more may be "
               "waiting, and while 63 wait the system drops new ones";
    }

    // The transport stays open over a device that is gone. With several of the same ids, the one
    // that is open may be any.
    static QString whyLost(const std::vector<HidNode>& nodes)
    {
        const bool isThere = std::any_of(nodes.begin(), nodes.end(), [](const HidNode& node) {
            return QFileInfo::exists(node.path);
        });
        return isThere ? QString() : "the device has gone";
    }

private:
    QElapsedTimer clock;
    qint64 last = 0;
    qint64 closeSince = 0; // replies have followed closely
    bool warned = false;
};

class UsbTarget : public LinkTarget
{
public:
    explicit UsbTarget(const LinkAddress& written) : LinkTarget(written)
    {
        static const QRegularExpression form(
            QRegularExpression::anchoredPattern("([0-9a-f]{4}):([0-9a-f]{4})"),
            QRegularExpression::CaseInsensitiveOption);
        const auto ids = form.match(address.place);
        if (!ids.hasMatch()) {
            address.refuse("ids", address.place,
                           "two of four hexadecimal digits, like 04b4:1008; see "
                           "coremanage devices");
        }
        address.allowOptions({});
        vendorId = static_cast<quint16>(ids.captured(1).toUInt(nullptr, 16));
        productId = static_cast<quint16>(ids.captured(2).toUInt(nullptr, 16));
    }

    std::vector<LinkPlace> places() const override
    {
        LinkPlace place;
        place.vendorId = vendorId;
        place.productId = productId;
        return {place};
    }

    std::unique_ptr<DeviceLink> open(bool /*broadcast*/) const override
    {
        auto line = std::make_unique<Core_USB>();
        line->setDeviceType(Utility_Manage::getDeviceType());
        if (!line->openUSB(vendorId, productId)) {
            throw LinkDown(QString("%1: %2").arg(address.text, obstacle()));
        }
        const auto sendRaw = [to = line.get()](const QByteArray& bytes) { to->sendUSBData(bytes); };
        CoreLink::watch(*line);
        return std::make_unique<UsbCoreLink>(std::move(line), HidNode::with(vendorId, productId),
                                             sendRaw);
    }

    QString simulationObstacle() const override { return hidemulation::obstacle(); }

    std::unique_ptr<Simulation> simulate(const SimulatedDevice::Settings& settings) const override
    {
        return hidemulation::device(vendorId, productId, settings);
    }

private:
    QString obstacle() const
    {
        const auto nodes = HidNode::with(vendorId, productId);
        if (!nodes.empty()) {
            const QString reason = fileaccess::obstacle(nodes.front().path);
            return nodes.front().path + ": " +
                   (reason.isEmpty() ? "it cannot be opened"
                                     : reason + ": coremanage devices shows the rule that helps");
        }
        const QString unseen = qEnvironmentVariableIsSet(HidTestbed::locationVariable)
                                   ? hidemulation::obstacle()
                                   : QString();
        return unseen.isEmpty() ? "there is no such device: coremanage devices lists what there is"
                                : unseen;
    }

    quint16 vendorId;
    quint16 productId;
};

} // namespace

std::unique_ptr<LinkTarget> linktargets::usb(const LinkAddress& address)
{
    return std::make_unique<UsbTarget>(address);
}
