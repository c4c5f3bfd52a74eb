// SPDX-License-Identifier: MIT
#include "linkwatchers.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace
{

std::vector<std::shared_ptr<LinkObserver>>& watchers()
{
    static std::vector<std::shared_ptr<LinkObserver>> all;
    return all;
}

} // namespace

void linkwatchers::add(std::shared_ptr<LinkObserver> observer)
{
    watchers().push_back(std::move(observer));
}

void linkwatchers::remove(const std::shared_ptr<LinkObserver>& observer)
{
    auto& all = watchers();
    all.erase(std::remove(all.begin(), all.end(), observer), all.end());
}

void linkwatchers::watch(ObservableLink& link)
{
    for (const auto& observer : watchers()) {
        link.addObserver(observer);
    }
}
