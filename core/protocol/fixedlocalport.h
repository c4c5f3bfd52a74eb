// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

/// The local port that sockets without a port of their own ask for, on every start: what Qt's
/// pseudo-random generator gives first for one fixed seed, plus an offset. Seeds the calling
/// thread's generator. Any thread; does not block.
quint16 fixedLocalPort();
