// SPDX-License-Identifier: MIT
#pragma once

#include "capturefile.h"

#include <QMap>
#include <QStringList>

#include <vector>

/// What one item of a packet shows: the fields by name, as text.
using ShownFields = QMap<QString, QString>;

/// A packet: its number and what the dissector shows of it, item by item.
struct ShownPacket {
    int number = 0;
    std::vector<ShownFields> items;
};

/// A capture as tshark shows it with the built dissector, in both of its passes.
struct Dissection {
    /// Needs tshark. \a options go to it. What is wrong with the run is in trouble.
    explicit Dissection(const QByteArray& capture, const QStringList& options = {});

    /// Frames, each with the block that came for it in another packet.
    std::vector<ShownFields> frames() const;

    std::vector<ShownPacket> packets;
    QString trouble; ///< empty: tshark read it, and nothing is malformed
};

/// Runs tshark as that does, and returns what it prints; nothing on standard error is an error.
QByteArray runTshark(const QByteArray& capture, const QStringList& options, QString& trouble);

/// Whether tshark is there.
bool hasTshark();
