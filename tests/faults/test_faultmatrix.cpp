// SPDX-License-Identifier: MIT
#include "faultmatrix.h"
#include "hostqueue.h"
#include "osdendpoint.h"
#include "osdframe.h"
#include "plainosdparser.h"
#include "replykinds.h"
#include "udpcomparison.h"

#include <gtest/gtest.h>

#include <set>
#include <tuple>

namespace
{

using faultmatrix::Kind;
using faultmatrix::Link;
using faultmatrix::Square;
using replystreamcomparison::Arrival;
using replystreamcomparison::Line;
using std::chrono::milliseconds;

constexpr int seeds = 3; // of what is random in a fault

std::vector<Line> linesOf(Link link)
{
    switch (link) {
    case Link::Serial:
        return {Line::Serial, Line::ShortBlockSerial};
    case Link::Vela:
        return {Line::SecondSerial};
    default:
        return {Line::Usb};
    }
}

const QString ip = QStringLiteral("127.0.0.7");

bool isAcknowledgement(const model_OsdParam& record, const QByteArray& bytes)
{
    model_OsdParam expected;
    expected.ch4 = '\xff';
    expected.strIP = ip;
    expected.arryData = bytes;
    const auto fields = [](const model_OsdParam& of) {
        return std::tie(of.ch0, of.ch1, of.ch2, of.ch3, of.ch4, of.ch5, of.ch6, of.ch7, of.ch8,
                        of.ch9, of.ch10, of.strIP, of.nParam1, of.nParam2, of.strParam, of.arryData,
                        of.nParam3);
    };
    return fields(record) == fields(expected);
}

// The endpoint's parser has no pauses but its loop's: only what has come counts.
QString osdDifference(const std::vector<Arrival>& arrivals)
{
    OsdEndpoint endpoint;
    PlainOsdParser plain;
    std::vector<QByteArray> acknowledgements;
    for (const Arrival& arrival : arrivals) {
        endpoint.received.append(arrival.bytes);
        plain.buffer += arrival.bytes;
        while (endpoint.received.size() >= osdframe::acknowledgementLength) {
            const QByteArray bytes = endpoint.parseOnce();
            if (!bytes.isEmpty()) {
                acknowledgements.push_back(bytes);
                if (!isAcknowledgement(osdframe::acknowledgement(ip, bytes), bytes)) {
                    return QStringLiteral("another record");
                }
            }
        }
        plain.passes();
        const auto left = endpoint.received.size();
        if (endpoint.received.peek(left) != plain.buffer) {
            return QStringLiteral("other bytes are left");
        }
    }
    return acknowledgements == plain.acknowledgements ? QString()
                                                      : QStringLiteral("other acknowledgements");
}

// Needs a block to strike.
bool isOfBlocks(Fault fault)
{
    static const std::set<Fault> all{Fault::BlockFirst, Fault::ShortBlock, Fault::LongBlock,
                                     Fault::BlockChecksum, Fault::LateBlock};
    return all.count(fault) > 0;
}

bool canStrike(const Square& square, const Kind& kind)
{
    if (!square.fault) {
        return false;
    }
    const bool hasBlock = square.link == Link::Vela
                              ? kind.length > 0
                              : kind.hasBlock || (kind.subCode == 0x09 && square.link != Link::Udp);
    return hasBlock || !isOfBlocks(*square.fault);
}

} // namespace

class FaultMatrix : public ::testing::TestWithParam<Square>
{
protected:
    QString difference(const std::vector<Arrival>& arrivals)
    {
        if (GetParam().link == Link::Osd) {
            return osdDifference(arrivals);
        }
        if (GetParam().link == Link::Udp) {
            QVector<QByteArray> datagrams;
            for (const Arrival& arrival : arrivals) {
                datagrams << arrival.bytes;
            }
            if (!udp) {
                udp = std::make_unique<UdpComparison>();
            }
            return udp->difference(datagrams);
        }
        for (const Line line : linesOf(GetParam().link)) {
            QString difference = replystreamcomparison::difference(line, arrivals);
            if (!difference.isEmpty()) {
                return difference;
            }
        }
        return hostqueue::logLines().join('\n'); // streams have nothing to say there
    }

private:
    std::unique_ptr<UdpComparison> udp;
};

TEST_P(FaultMatrix, EveryKindOfReplyEndsAsInTheLiteralVersion)
{
    const Square square = GetParam();
    for (const Kind& kind : faultmatrix::kinds()) {
        for (const int amount : faultmatrix::amounts(square.fault)) {
            for (const milliseconds apart :
                 {milliseconds(0), milliseconds(2), milliseconds(2000)}) {
                for (quint64 seed = 1; seed <= seeds; ++seed) {
                    SCOPED_TRACE(faultmatrix::name(square) + "/" + kind.name + " amount " +
                                 std::to_string(amount) + ", commands " +
                                 std::to_string(apart.count()) + " ms apart, seed " +
                                 std::to_string(seed));
                    bool struck = false;
                    const auto arrivals =
                        faultmatrix::arrivals(square, kind, amount, seed, apart, &struck);
                    EXPECT_EQ(struck, canStrike(square, kind));
                    ASSERT_EQ(difference(arrivals).toStdString(), "");
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Squares, FaultMatrix, ::testing::ValuesIn(faultmatrix::squares()),
                         [](const auto& square) { return faultmatrix::name(square.param); });

// The matrix is complete: a row that the table gains must get into it.
TEST(FaultMatrixKinds, EveryKindOfTheTableIsThere)
{
    using Traits = std::tuple<replykinds::Block, replykinds::Block, bool>;
    const auto traitsOf = [](int command, int subCode) {
        model_Protocoldata reply;
        reply.CMD = static_cast<quint8>(command);
        reply.DAT1 = static_cast<quint8>(subCode);
        const replykinds::Kind kind = replykinds::kindOf(reply);
        return Traits(kind.onUdp, kind.onStream, kind.mayBeShort);
    };
    std::set<std::pair<int, Traits>> known;
    for (const Kind& kind : faultmatrix::kinds()) {
        known.emplace(kind.command, traitsOf(kind.command, kind.subCode));
    }
    for (int command = 0; command < 256; ++command) {
        for (int subCode = 0; subCode < 256; ++subCode) {
            const Traits traits = traitsOf(command, subCode);
            const bool isStandard = traits == traitsOf(0x10, 0x20);
            EXPECT_TRUE(isStandard || known.count({command, traits}) > 0)
                << std::hex << command << ' ' << subCode;
        }
    }
}
