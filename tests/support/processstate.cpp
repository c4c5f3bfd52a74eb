// SPDX-License-Identifier: MIT
#include "processstate.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
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

// Whether a thread is in its last steps: who has joined it goes on before the system has removed
// it. So is one that is not there any more.
bool isEnding(const std::filesystem::path& task)
{
    constexpr unsigned long exiting = 0x4; // PF_EXITING
    std::string line;
    std::getline(std::ifstream(task / "stat"), line);
    std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 1)));
    std::string skipped;
    for (int i = 0; i < 6; ++i) { // state, parent, group, session, terminal, its group
        fields >> skipped;
    }
    unsigned long flags = exiting;
    return !(fields >> flags) || (flags & exiting) != 0;
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
        count += name == "core-handover" || isEnding(task.path()) ? 0 : 1;
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

long processstate::waits(long process)
{
    return statusField("voluntary_ctxt_switches:", std::to_string(process));
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
