// SPDX-License-Identifier: MIT
#include "devicelink.h"

#include "biz_cmdswork.h"
#include "icorebase.h"
#include "linknotes.h"
#include "linkwatchers.h"
#include "recordtext.h"

CoreLink::CoreLink(std::shared_ptr<ICoreBase> transport, FieldSet fields, QString device,
                   std::function<QString()> whyLost, std::function<void(const QByteArray&)> sendRaw)
    : core(std::move(transport)), fieldSet(fields), deviceName(std::move(device)),
      lossReason(std::move(whyLost)), writeRaw(std::move(sendRaw))
{
    biz_CMDSWork().clearQueue();
}

CoreLink::~CoreLink() = default;

void CoreLink::watch(ICoreBase& transport)
{
    linknotes::watch(transport);
    linkwatchers::watch(transport);
}

void CoreLink::send(const Command& command)
{
    if (!command.raw.isEmpty()) {
        writeRaw(command.raw);
        return;
    }
    model_Protocoldata record = command.record;
    core->sendDatatoDevice(&record);
}

std::vector<Reply> CoreLink::takeReplies()
{
    std::deque<model_Protocoldata> records;
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        records.swap(biz_CMDSWork::receivequeueHexCmd);
    }
    std::vector<Reply> replies;
    replies.reserve(records.size());
    for (const model_Protocoldata& record : records) {
        replies.push_back(recordtext::reply(record, fieldSet));
    }
    return replies;
}

bool CoreLink::isFromDevice(const Reply& reply) const
{
    return deviceName.isEmpty() || reply.from == deviceName;
}
