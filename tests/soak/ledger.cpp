// SPDX-License-Identifier: MIT
#include "ledger.h"

void Ledger::expect(quint32 number, Fate fate)
{
    const std::lock_guard guard(lock);
    newest = number;
    slotOf(number) = {number, fate};
    if (fate == Fate::Never) {
        ++sums.never;
    } else {
        ++sums.intact;
        ++awaitedNow;
    }
}

void Ledger::giveUp(quint32 number)
{
    const std::lock_guard guard(lock);
    Slot& slot = slotOf(number);
    if (slot.number == number && isAwaited(slot)) {
        slot.fate = Fate::Never;
        --awaitedNow;
        ++sums.given;
    }
}

QString Ledger::arrived(quint32 number, bool bare)
{
    const std::lock_guard guard(lock);
    Slot& slot = slotOf(number);
    if (slot.number != number || number == 0) {
        return QStringLiteral("was not sent, or long ago");
    }
    if (slot.fate > Fate::Never) {
        return QStringLiteral("arrived twice");
    }
    if (slot.fate == Fate::Never) {
        return QStringLiteral("was damaged or given up, and arrived");
    }
    if (slot.fate != Fate::Any && bare != (slot.fate == Fate::Bare)) {
        return QStringLiteral("arrived %1 its block").arg(bare ? "without" : "with");
    }
    slot.fate = bare ? Fate::ArrivedBare : Fate::Arrived;
    --awaitedNow;
    ++sums.arrived;
    return {};
}

bool Ledger::hasArrived(quint32 number, bool bare) const
{
    const std::lock_guard guard(lock);
    const Slot& slot = entries[number % kept];
    return slot.number == number && slot.fate == (bare ? Fate::ArrivedBare : Fate::Arrived);
}

int Ledger::awaited() const
{
    const std::lock_guard guard(lock);
    return awaitedNow;
}

quint32 Ledger::firstAwaited() const
{
    const std::lock_guard guard(lock);
    quint32 first = 0;
    for (const Slot& slot : entries) {
        if (isAwaited(slot) && (first == 0 || slot.number < first)) {
            first = slot.number;
        }
    }
    return first;
}

quint32 Ledger::newestLike(quint8 lowByte) const
{
    const std::lock_guard guard(lock);
    return newest - ((newest - lowByte) & 0xff);
}

Ledger::Counts Ledger::counts() const
{
    const std::lock_guard guard(lock);
    return sums;
}
