// SPDX-License-Identifier: MIT
#include "processstate.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/resource.h>

namespace
{

long statusField(const std::string& name, const std::string& process = "self")
{
    std::ifstream status("/proc/" + process + "/status");
    std::string word;
    while (status >> word) {
        if (word == name) {
            long value = 0;
            status >> value;
            return value;
        }
    }
    return -1;
}

double seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

} // namespace

int processstate::threads()
{
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        count += name == "core-handover" ? 0 : 1;
    }
    return count;
}

int processstate::descriptors()
{
    int count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count - 1; // the iterator's own
}

long processstate::residentKiB()
{
    return statusField("VmRSS:");
}

long processstate::residentKiB(long process)
{
    return statusField("VmRSS:", std::to_string(process));
}

double processstate::cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double processstate::cpuSeconds(long process)
{
    clockid_t clock{};
    timespec used{};
    return clock_getcpuclockid(static_cast<pid_t>(process), &clock) == 0 &&
                   clock_gettime(clock, &used) == 0
               ? static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9
               : -1;
}
