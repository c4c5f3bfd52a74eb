// SPDX-License-Identifier: MIT
#pragma once

#include "soakpeer.h"
#include "tests/osd/tcplistener.h"

#include "model_osdparam.h"

/// An on-screen-display endpoint of the shared manager.
class OsdPeer final : public SoakPeer
{
public:
    /// \a index: 0 to 200.
    OsdPeer(int index, SoakHost& host, quint64 seed);

    const QString& address() const { return ip; }

    /// Compares a record with the acknowledgement that was sent. The host's thread.
    void take(const model_OsdParam& record);

private:
    void open() override;
    void restart() override;
    void close() override;
    void sendWhole() override;
    bool mayGoOn() const override;
    void pass(quint32 number) override;
    QByteArray expected(quint32 number) const override;
    QByteArray incoming() override;

    void awaitConnection();
    void hangUp(bool resets);
    void put(const QByteArray& bytes);
    QByteArray acknowledgement();
    void sendNever(const char* mark);

    const QString ip;
    const TcpListener listener{1};
    const std::shared_ptr<LinkCounters> counters;
    int connection = -1;
    quint64 openedBefore = 0;
    quint32 newest = 0; // of the newest acknowledgement
};
