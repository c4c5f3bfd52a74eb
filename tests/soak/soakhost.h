// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

/// The host's thread as the peers see it: the links belong to it, so it works on them.
class SoakHost
{
public:
    /// Has the host's thread do this, and waits for it. Any other thread.
    void perform(const std::function<void()>& task);

    /// Does what the peers have asked for. The host's thread.
    void performAll();

    /// Ends the run; the first reason counts. Any thread.
    void fail(const QString& reason);
    QString failure() const; ///< null if there is none
    bool hasFailed() const { return failed; }

    std::atomic<bool> isOver{false};     ///< the peers are to end
    std::atomic<bool> restWanted{false}; ///< they are to send nothing until it is false again

private:
    mutable std::mutex lock; // a leaf: everything below
    std::condition_variable done;
    std::vector<const std::function<void()>*> tasks;
    QString reason;
    std::atomic<bool> failed{false};
};
