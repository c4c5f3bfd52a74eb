// SPDX-License-Identifier: MIT
#pragma once

#include "waiting.h"

#include <QString>

#include <functional>
#include <vector>

struct LinkKind;

/// Tells, step by step, what is being done and whether it came out as said.
class Narrator
{
public:
    explicit Narrator(const Interrupt& interrupt) : stop(interrupt) {}

    void say(const QString& text);    ///< a step begins
    void detail(const QString& text); ///< something seen on the way

    /// Notes whether what was said has happened, unless the person has interrupted.
    void expect(bool happened, const QString& what);

    /// Waits for the condition, long enough for a machine that has much else to do.
    bool comes(const std::function<bool()>& condition);

    /// Goes through the steps until the person interrupts.
    void run(const std::vector<std::function<void()>>& steps);

    bool allAsSaid() const { return failures == 0; }
    int expectations() const { return total; }
    bool isInterrupted() const { return stop.happened(); }

private:
    const Interrupt& stop;
    int total = 0;
    int failures = 0;
};

/// The demonstration that every device link shares: commands travel to a simulated device and
/// decoded replies come back. Throws LinkDown if the device cannot be at \a place, a link's
/// address.
namespace devicedemo
{
void run(Narrator& narrator, const LinkKind& kind, const QString& place);
}

/// The demonstration of the on-screen-display endpoints: three simulated ones, of which one goes
/// away and comes back. Throws LinkDown if they cannot be there.
namespace osddemo
{
void run(Narrator& narrator);
}
