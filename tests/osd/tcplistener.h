// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/// A listening socket on a free port of every local address. The system completes as many
/// connections as the backlog says without anyone accepting them.
class TcpListener
{
public:
    explicit TcpListener(int backlog)
    {
        own.sin_family = AF_INET;
        socklen_t length = sizeof own;
        EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
        EXPECT_EQ(listen(descriptor, backlog), 0);
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &length);
    }
    ~TcpListener() { close(descriptor); }
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    int port() const { return ntohs(own.sin_port); }
    int accept() const { return ::accept(descriptor, nullptr, nullptr); }
    const sockaddr* name() const { return reinterpret_cast<const sockaddr*>(&own); }

private:
    int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in own{};
};
