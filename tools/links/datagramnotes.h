// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <optional>

/// Something that came from a device and was refused.
struct Refusal {
    QString reason; ///< "a reply with a wrong checksum"
    QString from;   ///< the sender's address; empty: the link's one device
    QString bytes;  ///< as the debug line shows them: up to the first zero byte

    /// All of it in words; \a link is what the one device is called.
    QString text(const QString& link) const;
};

/// Tells from the debug lines of a UDP link which datagrams it refuses, each once. A datagram that
/// is no reply may be the block of the reply before it, and that is known only by that reply's kind
/// and by what the link says of the lengths.
class DatagramNotes
{
public:
    /// Takes the next debug line of the link's thread.
    std::optional<Refusal> take(const QString& line);

private:
    enum class Awaited { Nothing, NoBytes, AnnouncedBlock, FixedBlock };

    void begin(const QString& shown);
    std::optional<Refusal> undecodable(bool isReply);
    std::optional<Refusal> judgeLength(const QString& line);
    std::optional<Refusal> refuse(const QString& reason);
    static std::optional<Awaited> awaitedAfter(const QByteArray& reply);

    Awaited awaited = Awaited::Nothing;
    Refusal current;        // the datagram in hand
    bool isDecoded = false; // as far as is known
    bool isJudged = true;   // else the next lengths decide
};

/// What a debug line quotes behind a text, as it shows it; null if it does not.
QString quotedBehind(const QString& line, const char* text);
