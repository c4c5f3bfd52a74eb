// SPDX-License-Identifier: MIT
#include "blockjoin.h"

#include "replykinds.h"

#include <utility>

blockjoin::Result blockjoin::join(model_Protocoldata reply, const QByteArray& received)
{
    Result result;
    result.record = std::move(reply);
    const int fixed = replykinds::fixedLength(replykinds::kindOf(result.record).onUdp);
    if (fixed > 0) {
        result.record.arryDatablock = received.left(fixed);
        result.outcome = Outcome::Joined;
        return result;
    }
    result.announced = true;
    // Signed on purpose: a length of 0x8000 or more takes everything and then never matches.
    result.length = static_cast<qint16>(replykinds::announcedLength(result.record));
    if (result.length == 0) {
        return result;
    }
    result.record.arryDatablock = result.length < 0 ? received : received.left(result.length);
    result.outcome = result.record.arryDatablock.size() == result.length ? Outcome::Joined
                                                                         : Outcome::LengthMismatch;
    return result;
}

const char* blockjoin::failureText(Outcome outcome)
{
    switch (outcome) {
    case Outcome::ZeroLength:
        return "arraylen=!arrayreceived.size() return";
    case Outcome::LengthMismatch:
        return "combineTwoByte(parameters.DAT3, parameters.DAT4) != "
               "parameters.arryDatablock.size() return";
    case Outcome::Joined:
        break;
    }
    return nullptr;
}
