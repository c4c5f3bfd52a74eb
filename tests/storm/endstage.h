// SPDX-License-Identifier: MIT
#pragma once

/// A host with one link, up to the end of the process:
///
///     LINK WAY STATE SEED
///
/// It reports on descriptor 3, see endhost. Returns what main is to return; a way that ends the
/// process by itself does not return.
extern "C" [[gnu::visibility("default")]] int endstage(int argc, char** argv);
