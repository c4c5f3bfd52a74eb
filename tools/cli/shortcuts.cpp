// SPDX-License-Identifier: MIT
#include "shortcuts.h"

#include <algorithm>
#include <cstring>

namespace
{

// How many letters are missing, added, wrong or swapped with the next one.
int distance(const QString& left, const QString& right)
{
    const auto width = static_cast<std::size_t>(right.size()) + 1;
    std::vector<std::vector<int>> rows(static_cast<std::size_t>(left.size()) + 1,
                                       std::vector<int>(width, 0));
    for (int i = 0; i <= left.size(); ++i) {
        for (int j = 0; j <= right.size(); ++j) {
            const auto at = [&rows, i, j](int up, int back) -> int& {
                return rows[static_cast<std::size_t>(i - up)][static_cast<std::size_t>(j - back)];
            };
            if (i == 0 || j == 0) {
                at(0, 0) = i + j;
                continue;
            }
            const bool same = left.at(i - 1) == right.at(j - 1);
            at(0, 0) = std::min({at(1, 0) + 1, at(0, 1) + 1, at(1, 1) + (same ? 0 : 1)});
            if (i > 1 && j > 1 && left.at(i - 1) == right.at(j - 2) &&
                left.at(i - 2) == right.at(j - 1)) {
                at(0, 0) = std::min(at(0, 0), at(2, 2) + 1);
            }
        }
    }
    return rows.back().back();
}

} // namespace

std::vector<const char*> shortcuts::resolved(int argc, char** argv)
{
    std::vector<const char*> arguments(argv, argv + argc);
    if (argc > 1 && std::strcmp(argv[1], "help") == 0) {
        arguments.erase(arguments.begin() + 1);
        arguments.push_back("--help");
    }
    return arguments;
}

QString shortcuts::closest(const QString& typed, const QStringList& names)
{
    constexpr int farthest = 2;
    constexpr int shortest = 3; // of two letters, two wrong ones are like anything
    QString best;
    int least = farthest + 1;
    for (const QString& name : names) {
        const int away = name.startsWith(typed) ? 0 : distance(typed, name);
        if (typed.size() >= shortest && away < least) {
            best = name;
            least = away;
        }
    }
    return best;
}
