// SPDX-License-Identifier: MIT
#pragma once

#include "replykinds.h"

#include <functional>
#include <string>

/// The library's frames and reply kinds as Lua. Pure functions.
namespace luatables
{

using KindOf = std::function<replykinds::Kind(const model_Protocoldata&)>;

/// A table of tables, by CMD and DAT1: the kind on UDP, the kind on streams, whether it may be
/// short. What most sub-codes of a command are stands under "others"; a command of which all are
/// standard replies is left out.
std::string kinds(const KindOf& kindOf = replykinds::kindOf);

/// "local library = { ... }": everything that the dissector takes from the library.
std::string library();

} // namespace luatables
