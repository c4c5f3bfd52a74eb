// SPDX-License-Identifier: MIT
#include "linknotes.h"

#include "linkobserver.h"
#include "output.h"
#include "recordtext.h"
#include "replykinds.h"

#include <QLoggingCategory>

#include <mutex>
#include <utility>

namespace
{

constexpr std::size_t keptLimit = 10000; // until they are taken; the others are dropped

QString reasonOf(const LinkEvent& event)
{
    using Check = LinkEvent::Check;
    switch (event.check) {
    case Check::Checksum:
        return QStringLiteral("a reply with a wrong checksum");
    case Check::NoBlock:
        return QStringLiteral("a block that no reply announced");
    case Check::BlockLength:
        return QStringLiteral("a block of another length than announced, %1 bytes instead of %2")
            .arg(event.bytes.size())
            .arg(replykinds::announcedLength(*event.reply));
    case Check::BlockChecksum:
        return QStringLiteral("a reply whose block is damaged");
    case Check::BlockMissing:
        return QStringLiteral("a reply whose block did not come in time");
    default:
        return QStringLiteral("bytes that are no reply");
    }
}

class Notes : public LinkObserver
{
public:
    void onEvent(const LinkEvent& event) override
    {
        const std::lock_guard guard(lock);
        sendFailed = sendFailed || event.kind == LinkEvent::Kind::SendFailed;
        if (event.kind == LinkEvent::Kind::Refused && refusals.size() < keptLimit) {
            refusals.push_back({reasonOf(event), event.peer, recordtext::frameText(event.bytes)});
        }
    }

    std::mutex lock; // a leaf, for what follows
    bool sendFailed = false;
    std::vector<Refusal> refusals;
};

const std::shared_ptr<Notes>& notes()
{
    static const auto instance = std::make_shared<Notes>();
    return instance;
}

void show(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& message)
{
    output::error(message);
}

} // namespace

QString Refusal::text(const QString& link) const
{
    return QStringLiteral("%1 from %2: %3").arg(reason, from.isEmpty() ? link : from, bytes);
}

void linknotes::install(bool verbose)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, verbose);
    qInstallMessageHandler(show);
}

void linknotes::watch(ObservableLink& link)
{
    link.addObserver(notes());
}

bool linknotes::takeSendFailure()
{
    const std::lock_guard guard(notes()->lock);
    return std::exchange(notes()->sendFailed, false);
}

std::vector<Refusal> linknotes::takeRefusals()
{
    const std::lock_guard guard(notes()->lock);
    return std::exchange(notes()->refusals, {});
}
