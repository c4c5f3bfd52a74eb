// SPDX-License-Identifier: MIT
#pragma once

#include "linkobserver.h"

/// Observers of the tool's own that are told of every link it opens while they are here. Main
/// thread.
namespace linkwatchers
{

void add(std::shared_ptr<LinkObserver> observer);
void remove(
    const std::shared_ptr<LinkObserver>& observer); ///< links that are open go on telling it

/// Called by whatever opens a link.
void watch(ObservableLink& link);

} // namespace linkwatchers
