// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

/// The local port of UDP links and on-screen-display clients, the same on every run: the first
/// value of Qt's pseudo-random generator for a fixed seed, plus an offset. Seeds the calling
/// thread's generator. Any thread; does not block.
quint16 fixedLocalPort();
