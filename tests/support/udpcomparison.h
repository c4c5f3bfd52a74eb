// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <memory>

/// A UDP link of the library on its real socket beside the literal one. One at a time.
class UdpComparison
{
public:
    UdpComparison();
    ~UdpComparison();
    UdpComparison(const UdpComparison&) = delete;
    UdpComparison& operator=(const UdpComparison&) = delete;

    /// Sends both links the same datagrams from an address of this machine, and then two more that
    /// show whether a reply still waits for its block. Returns how they differ in what they queued,
    /// in the flag behind each datagram, or in what they wrote to the debug log and to the host's
    /// log, whose lines may come in another order; empty if they agree.
    QString difference(const QVector<QByteArray>& datagrams);

private:
    struct Parts;
    const std::unique_ptr<Parts> parts;
};
