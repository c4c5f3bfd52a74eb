// SPDX-License-Identifier: MIT
#include "datagramnotes.h"

#include "commandframe.h"
#include "replykinds.h"

#include <QStringList>

#include <utility>

QString Refusal::text(const QString& link) const
{
    return QStringLiteral("%1 from %2: %3").arg(reason, from.isEmpty() ? link : from, bytes);
}

QString quotedBehind(const QString& line, const char* text)
{
    const QString start = QLatin1Char('"') + QLatin1String(text);
    const int end = line.indexOf(QLatin1String("\" \""), start.size());
    return line.startsWith(start)
               ? line.mid(start.size(), (end < 0 ? line.size() - 1 : end) - start.size())
               : QString();
}

std::optional<Refusal> DatagramNotes::take(const QString& line)
{
    if (const QString shown = quotedBehind(line, "Recv data:"); !shown.isNull()) {
        begin(shown);
    } else if (const QString sender = quotedBehind(line, "host ip:"); !sender.isNull()) {
        current.from = sender;
    } else if (line == QLatin1String("CHKSUM Wrong return")) {
        return undecodable(true);
    } else if (line == QLatin1String("datagram.size()!=19 return") ||
               line == QLatin1String("no '<' 'F'")) {
        return undecodable(false);
    } else if (line.startsWith(QLatin1String("dataLeng = "))) {
        return judgeLength(line);
    } else if (line.endsWith(QLatin1String("\"reInitUdp()\""))) {
        awaited = Awaited::Nothing;
        isDecoded = false;
    }
    return std::nullopt;
}

// The one before was a reply if nothing has been said against it.
void DatagramNotes::begin(const QString& shown)
{
    if (isDecoded) {
        awaited = awaitedAfter(current.bytes.toUtf8()).value_or(awaited);
    }
    current = Refusal{{}, {}, shown};
    isDecoded = true;
    isJudged = true;
}

std::optional<DatagramNotes::Awaited> DatagramNotes::awaitedAfter(const QByteArray& reply)
{
    using replykinds::Block;
    model_Protocoldata record;
    commandframe::decodeText(reply, record);
    const bool announces = replykinds::announcedLength(record) != 0;
    switch (replykinds::kindOf(record).onUdp) {
    case Block::None:
    case Block::Immediate:
        return std::nullopt;
    case Block::AnnouncedIfAny:
        return announces ? std::optional(Awaited::AnnouncedBlock) : std::nullopt;
    case Block::Announced:
        return announces ? Awaited::AnnouncedBlock : Awaited::NoBytes;
    case Block::FixedA:
    case Block::FixedB:
        return Awaited::FixedBlock;
    }
    return std::nullopt;
}

std::optional<Refusal> DatagramNotes::undecodable(bool isReply)
{
    const Awaited before = std::exchange(awaited, Awaited::Nothing);
    isDecoded = false;
    if (isReply) {
        return refuse(QStringLiteral("a reply with a wrong checksum"));
    }
    if (before == Awaited::Nothing) {
        return refuse(QStringLiteral("bytes that are no reply"));
    }
    if (before == Awaited::NoBytes) {
        return refuse(QStringLiteral("a block that no reply announced"));
    }
    isJudged = before == Awaited::FixedBlock; // whatever its length
    return std::nullopt;
}

std::optional<Refusal> DatagramNotes::judgeLength(const QString& line)
{
    const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    constexpr int announcedWord = 2; // "dataLeng = ANNOUNCED TAKEN"
    const QString announced = words.value(announcedWord);
    const QString taken = words.value(announcedWord + 1);
    if (std::exchange(isJudged, true) || announced == taken) {
        return std::nullopt;
    }
    return refuse(QStringLiteral("a block of another length than announced, %1 bytes instead of %2")
                      .arg(taken)
                      .arg(static_cast<quint16>(announced.toInt())));
}

std::optional<Refusal> DatagramNotes::refuse(const QString& reason)
{
    current.reason = reason;
    return current;
}
