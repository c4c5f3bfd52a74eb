// SPDX-License-Identifier: MIT
// One change of every kind that scripts/mutants makes, each of which changes what this prints.
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string_view>

namespace
{

constexpr int limit = 3;
constexpr std::chrono::milliseconds interval{2};
constexpr int values[] = {1, 2, 4, 5, 6, 9};
constexpr int numbers[] = {2, 3, 4};
// NOLINTNEXTLINE(readability-redundant-string-init): a literal to change
constexpr std::string_view noText = "";
std::mutex lock;

struct Shown {
    int first = 7;
    bool isOn{true};
};

bool isLocked()
{
    const std::lock_guard guard(lock);
    return std::unique_lock(lock, std::try_to_lock).owns_lock();
}

int count(std::string_view text)
{
    int sum = 0;
    for (const int value : values) {
        if (value == 4 || value == 5) {
            continue;
        }
        if (value >= 6 && !text.empty()) {
            break;
        }
        sum += value;
    }
    return sum;
}

const char* nameOf(int number)
{
    if (number < limit) {
        return "few";
    }
    return "many";
}

} // namespace

int main()
{
    const Shown shown;
    int steps = 10;
    ++steps;
    std::printf("%d %d ", count("text"), count(noText));
    for (const int number : numbers) {
        std::printf("%s ", nameOf(number));
    }
    std::printf("%d %c ", (steps - 1) * 2, 'x');
    std::printf("%d ", static_cast<int>(interval.count()) | 16);
    std::printf("%d ", static_cast<int>((interval + interval) / std::chrono::milliseconds(1)));
    std::printf("%d %d %d\n", shown.first, shown.isOn, isLocked());
    return steps >> 1;
}
