// SPDX-License-Identifier: MIT
// Any reply and any block through the library's join and the literal one. The first seven bytes are
// the reply's fields, the rest is the block.
#include "blockjoin.h"
#include "commandframe.h"
#include "literaludp.h"
#include "recordequality.h"
#include "require.h"

#include <QLoggingCategory>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QByteArray frame = textReply(input.left(replyFields));
    const QByteArray block = input.mid(replyFields);
    if (block.isEmpty()) {
        return 0;
    }
    LiteralUdp literal;
    literal.combineSTDCMDandBloackCMD(block, frame);

    model_Protocoldata reply;
    require(commandframe::decodeText(frame, reply), "the reply is valid");
    reply.strKey = reply.strKey2 = QString(); // as the literal one stamps without a sender
    reply.featureCode = literal.deviceType;
    const blockjoin::Result result = blockjoin::join(reply, block);
    const bool isJoined = result.outcome == blockjoin::Outcome::Joined;
    require(isJoined == !literal.receivequeueHexCmd.empty(), "both join, or none");
    if (isJoined) {
        require(sameRecord(result.record, literal.receivequeueHexCmd.front()), "the same record");
    } else {
        require(literal.log == QStringList(QLatin1String(blockjoin::failureText(result.outcome))),
                "the same failure");
    }
    return 0;
}
