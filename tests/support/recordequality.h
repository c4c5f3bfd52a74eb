// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

/// Whether two records agree in every member, the null or empty state of texts included.
inline bool sameRecord(const model_Protocoldata& a, const model_Protocoldata& b)
{
    const auto sameText = [](const QString& x, const QString& y) {
        return x == y && x.isNull() == y.isNull();
    };
    return sameText(a.strKey, b.strKey) && a.bKeyFlag == b.bKeyFlag &&
           sameText(a.strKey2, b.strKey2) && a.HEAD == b.HEAD && a.aux1 == b.aux1 &&
           a.aux2 == b.aux2 && a.aux3 == b.aux3 && a.aux4 == b.aux4 && a.aux5 == b.aux5 &&
           a.aux6 == b.aux6 && a.ADDR == b.ADDR && a.CMD == b.CMD && a.DAT1 == b.DAT1 &&
           a.DAT2 == b.DAT2 && a.DAT3 == b.DAT3 && a.DAT4 == b.DAT4 && a.CHKSUM == b.CHKSUM &&
           a.aux7 == b.aux7 && sameText(a.strReply, b.strReply) &&
           a.arryDatablock == b.arryDatablock && a.sendMode == b.sendMode &&
           a.featureCode == b.featureCode;
}
