// SPDX-License-Identifier: MIT
#pragma once

#include "biz_cmdswork.h"
#include "replystreamparser.h"

#include <chrono>
#include <future>
#include <mutex>
#include <thread>

/// Whether an operation, on another thread, returns only when the host lets its reply queue go, and
/// then with success.
template <class Operation>
bool waitsForTheHost(Operation&& operation)
{
    std::future<bool> result;
    bool hasWaited = false;
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        result = std::async(std::launch::async, operation);
        hasWaited = result.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
    }
    return result.get() && hasWaited;
}

/// The parsing loop of a transport, on a thread that lives as long as this object.
class ParserLoop
{
public:
    explicit ParserLoop(ReplyStreamParser& transport) : parser(transport)
    {
        parser.setDealFlag(true);
        thread = std::thread([this] { parser.td_dealDataFunc(); });
    }
    ~ParserLoop() { stop(); }
    ParserLoop(const ParserLoop&) = delete;
    ParserLoop& operator=(const ParserLoop&) = delete;

    void stop()
    {
        parser.setDealFlag(false);
        if (thread.joinable()) {
            thread.join();
        }
    }

private:
    ReplyStreamParser& parser;
    std::thread thread;
};
