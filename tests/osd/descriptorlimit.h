// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>

#include <sys/resource.h>

/// So many descriptors for this process while it exists; those it has stay.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int total)
    {
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit limited = before;
        limited.rlim_cur = static_cast<rlim_t>(total);
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limited), 0);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before{};
};
