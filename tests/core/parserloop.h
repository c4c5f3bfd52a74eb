// SPDX-License-Identifier: MIT
#pragma once

#include "replystreamparser.h"

#include <thread>

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
