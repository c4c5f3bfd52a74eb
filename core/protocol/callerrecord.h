// SPDX-License-Identifier: MIT
#pragma once

#include <optional>

/// A copy of the caller-owned record behind the untyped pointer of a send operation; nothing for a
/// null pointer.
template <class Record>
std::optional<Record> callerRecord(const void* parameters)
{
    if (parameters == nullptr) {
        return std::nullopt;
    }
    return *static_cast<const Record*>(parameters);
}
