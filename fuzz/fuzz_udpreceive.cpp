// SPDX-License-Identifier: MIT
// Any sequence of datagrams to a UDP link, on its real socket, and to the literal one. A datagram
// follows its length in one byte; one of seven bytes stands for a valid reply of these fields.
#include "cutscript.h"
#include "netns.h"
#include "require.h"
#include "udpcomparison.h"

#include <QCoreApplication>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// The link's port is fixed: several runs at a time each have their own.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    (void)netns::isolate();
    static const QCoreApplication application(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static UdpComparison comparison;
    QVector<QByteArray> datagrams =
        cutscript::pieces(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    for (QByteArray& datagram : datagrams) {
        if (datagram.size() == replyFields) {
            datagram = textReply(datagram);
        }
    }
    const QString difference = comparison.difference(datagrams);
    require(difference.isEmpty(), qPrintable(difference));
    return 0;
}
