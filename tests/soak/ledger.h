// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <array>
#include <mutex>

/// What became of the numbered replies of one link. Keeps the newest of them, so it does not grow.
/// Any thread.
class Ledger
{
public:
    /// What the host has to get of a reply.
    enum class Fate : quint8 {
        Whole,       ///< all of it, once
        Bare,        ///< its head alone, once
        Any,         ///< one of these, once
        Never,       ///< nothing
        Arrived,     ///< nothing any more: it got all of it
        ArrivedBare, ///< nothing any more: it got the head
    };

    struct Counts {
        qint64 intact = 0;  ///< that the host had to get
        qint64 arrived = 0; ///< that it got
        qint64 never = 0;   ///< that it was not to get
        qint64 given = 0;   ///< given up by the library in their time, of the intact ones
    };

    /// Before the reply \a number is sent; numbers only grow.
    void expect(quint32 number, Fate fate);

    /// The library has given the reply up, with good reason: nothing of it is awaited any more.
    void giveUp(quint32 number);

    /// The host got it, \a bare or whole. What is wrong with that, or null.
    QString arrived(quint32 number, bool bare);

    bool hasArrived(quint32 number, bool bare) const;
    int awaited() const;                      ///< replies that the host still has to get
    quint32 firstAwaited() const;             ///< the oldest of them; 0 if there is none
    quint32 newestLike(quint8 lowByte) const; ///< the newest number that ends with this byte
    Counts counts() const;

private:
    struct Slot {
        quint32 number = 0;
        Fate fate = Fate::Arrived;
    };
    static constexpr std::size_t kept = 4096;
    static bool isAwaited(const Slot& slot) { return slot.fate < Fate::Never; }
    Slot& slotOf(quint32 number) { return entries[number % kept]; }

    mutable std::mutex lock; // a leaf: everything below
    std::array<Slot, kept> entries{};
    quint32 newest = 0;
    int awaitedNow = 0;
    Counts sums;
};
