// SPDX-License-Identifier: MIT
#pragma once

#include "capturerecord.h"

#include <QString>

#include <vector>

/// The packets of a capture as libpcap reads them, each with its time. The test fails if one is
/// not the capture's own.
std::vector<CaptureRecord> capturedPackets(const QString& path);
