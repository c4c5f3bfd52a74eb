// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include <unistd.h>

/// Ends the process, with the name of the thread and the stacks of all, when a thread has been at
/// one thing for too long.
class Watchdog
{
public:
    /// What one thread is at. The thread's own, but for the watchdog.
    class Mark
    {
    public:
        explicit Mark(std::string of) : name(std::move(of)) {}
        void begin() { id = gettid(); } ///< by the thread that it is of
        void end() { id = 0; }          ///< it is watched no more
        void now(const char* what);     ///< \a what must live for ever

    private:
        friend Watchdog;
        const std::string name;
        std::atomic<pid_t> id{0};
        std::atomic<const char*> doing{"begin"};
        std::atomic<std::chrono::steady_clock::rep> since{0};
    };

    explicit Watchdog(std::chrono::milliseconds patience);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    Mark& add(const std::string& name); ///< which lives as long as the watchdog

private:
    void run();
    void look();

    const std::chrono::milliseconds limit;
    std::mutex lock;
    std::condition_variable ending;
    bool ends = false;
    std::list<Mark> marks;
    std::thread thread;
};
