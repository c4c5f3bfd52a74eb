// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"
#include "replybytes.h"

/// The text frames of a link under test, encoded independently; see LinkConformance.
struct TextFrames {
    static QByteArray command(const model_Protocoldata& record)
    {
        QByteArray body;
        for (const quint8 byte : {record.HEAD, record.ADDR, record.CMD, record.DAT1, record.DAT2,
                                  record.DAT3, record.DAT4}) {
            body.append(static_cast<char>(byte));
        }
        body.append(replybytes::sumOf(body));
        return "<T" + body.toHex() + ">" + record.arryDatablock;
    }
    static QByteArray reply(int tag) { return replybytes::text(0x10, 0x20, 0, 0, tag); }
    static QByteArray head(int tag, int length)
    {
        return replybytes::text(0xF1, 0x12, length & 0xff, length >> 8, tag);
    }
    static QByteArray block(int length) { return replybytes::block(length); }
    static int tagOf(const model_Protocoldata& record) { return record.ADDR; }
    static QByteArray handedOn(const QByteArray& block) { return block; }
    static constexpr bool showsLostBlocks = false;
};
