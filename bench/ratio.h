// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

/// Measures two ways of doing the same thing in turns, so that whatever else the machine does falls
/// on both.
namespace ratio
{

/// Seconds that one call takes, from one batch of calls.
template <class Function>
double secondsPerCall(Function&& function, int calls)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) {
        function();
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / calls;
}

/// The value below which this share of \a values lies; \a values is sorted.
inline double percentile(std::vector<double>& values, double share)
{
    std::sort(values.begin(), values.end());
    return values.at(static_cast<std::size_t>(share * static_cast<double>(values.size() - 1)));
}

/// Median seconds per call of \a first and \a second, over batches taken in turns.
template <class First, class Second>
std::pair<double, double> inTurns(First&& first, Second&& second, int calls = 20000,
                                  int batches = 31)
{
    std::vector<double> firsts;
    std::vector<double> seconds;
    for (int i = 0; i < batches; ++i) {
        firsts.push_back(secondsPerCall(first, calls));
        seconds.push_back(secondsPerCall(second, calls));
    }
    return {percentile(firsts, 0.5), percentile(seconds, 0.5)};
}

/// Adds a line to the file that BENCH_RESULTS names, if it does: what was measured, at which size
/// or count (0 if there is none), the library's figure, the baseline's (0 alike) and their unit.
inline void record(const char* what, double at, double library, double baseline, const char* unit)
{
    const char* const path = std::getenv("BENCH_RESULTS");
    std::FILE* const file = path == nullptr ? nullptr : std::fopen(path, "a");
    if (file != nullptr) {
        std::fprintf(file, "\"%s\",%.0f,%.6g,%.6g,%s\n", what, at, library, baseline, unit);
        std::fclose(file);
    }
}

/// One line: what, how often as fast as the baseline (or how many times its time), and the goal.
inline void printFaster(const char* what, double baseline, double library, double goal)
{
    record(what, 0, library * 1e6, baseline * 1e6, "us");
    std::printf("%-46s %8.1f ns, baseline %8.1f ns: %6.1f times as fast (goal: %.0f or more)\n",
                what, library * 1e9, baseline * 1e9, baseline / library, goal);
}

inline void printTimes(const char* what, double baseline, double library, double goal)
{
    record(what, 0, library * 1e6, baseline * 1e6, "us");
    std::printf("%-46s %8.2f us, baseline %8.2f us: %6.2f times its time (goal: %.1f or less)\n",
                what, library * 1e6, baseline * 1e6, library / baseline, goal);
}

} // namespace ratio
