// SPDX-License-Identifier: MIT
#include "linkobserver.h"

#include "linktap.h"

#include <algorithm>

namespace
{

std::atomic<bool> silent{false};

} // namespace

LinkObserver::LinkObserver() = default;
LinkObserver::~LinkObserver() = default;

ObservableLink::ObservableLink() : tap(std::make_shared<LinkTap>()) {}
ObservableLink::~ObservableLink() = default;

void ObservableLink::addObserver(std::shared_ptr<LinkObserver> observer)
{
    if (observer) {
        tap->add(std::move(observer));
    }
}

void ObservableLink::removeObserver(const std::shared_ptr<LinkObserver>& observer)
{
    tap->remove(observer);
}

void LinkTap::add(std::shared_ptr<LinkObserver> observer)
{
    const std::lock_guard guard(lock);
    auto more = std::make_shared<Observers>(*observers);
    more->push_back(std::move(observer));
    observers = std::move(more);
    watched = true;
}

void LinkTap::remove(const std::shared_ptr<LinkObserver>& observer)
{
    const std::lock_guard guard(lock);
    auto fewer = std::make_shared<Observers>(*observers);
    fewer->erase(std::remove(fewer->begin(), fewer->end(), observer), fewer->end());
    watched = !fewer->empty();
    observers = std::move(fewer);
}

// An observer may add or remove observers: the list that is told stays as it is.
void LinkTap::deliver(const LinkEvent& event) const
{
    std::shared_ptr<const Observers> told;
    {
        const std::lock_guard guard(lock);
        told = observers;
    }
    for (const auto& observer : *told) {
        if (!silent.load(std::memory_order_relaxed)) {
            observer->onEvent(event);
        }
    }
}

void LinkTap::silence() noexcept
{
    silent = true;
}
