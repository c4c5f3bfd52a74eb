// SPDX-License-Identifier: MIT
#pragma once

#include "linkobserver.h"
#include "linkplace.h"

#include <QElapsedTimer>
#include <QMap>
#include <QStringList>

#include <memory>
#include <mutex>
#include <vector>

/// Why no reply comes, as far as this machine can see it: what has come, and what the kernel has
/// counted since. Sends nothing. Any thread, unless said otherwise.
class Silence : public LinkObserver
{
public:
    /// Watches the link that is opened next, from now on; \a places are where its devices are.
    static std::shared_ptr<Silence> watch(std::vector<LinkPlace> places);

    void onEvent(const LinkEvent& event) override;

    /// What can be seen of one of the link's devices, or, with an empty name, of all of them;
    /// "nothing came" if nothing can. \a said: what was seen of it is in another place already.
    /// Begins with \a before; empty where only what the link has refused came,
    /// or the device has hung up.
    QString cause(const QString& device, const QString& before) const;

    /// The rules of this machine's firewall that may have refused a datagram, after \a before;
    /// empty where there is no network, and where root sees none.
    QString firewall(const QString& before) const;

    /// What has come on a serial line and was no reply, once a second at most, and the rest of it
    /// with \a last; empty if there is none. One thread.
    QString takeNoise(bool last = false);

private:
    /// What has come from one device.
    struct Arrival {
        qint64 bytes = 0;
        qint64 skipped = 0;
        qint64 replies = 0;
        qint64 refusals = 0;
        bool opened = false;
        bool hungUp = false;
        QByteArray first;        // of the bytes
        QByteArray firstSkipped; // of those that belong to no reply

        void add(const LinkEvent& event);
    };

    explicit Silence(std::vector<LinkPlace> linkPlaces);
    QString speed() const;
    QStringList placeCauses(const LinkPlace& place, bool opened) const;
    QStringList counted(const LinkPlace& place, bool opened) const;
    qint64 since(const char* counter, const QMap<QByteArray, qint64>& now) const;

    const std::vector<LinkPlace> places;
    const QMap<QByteArray, qint64> atStart; // counters
    mutable std::mutex lock;                // a leaf, for what follows
    QMap<QString, Arrival> arrivals;        // by device; all together by no name
    Arrival noise; // since it was taken last; its bytes since the last reply
    QElapsedTimer sinceNoise;
    QElapsedTimer sinceArrival;
};
