// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

#include <array>
#include <optional>
#include <random>

/// Random numbers that are the same on every machine for the same seed.
class SeededRandom
{
public:
    explicit SeededRandom(quint64 seed) : engine(seed) {}

    bool chance(double probability); ///< true with this probability, 0 to 1
    template <class Number>
    Number below(Number limit) ///< 0 to limit - 1; limit at least 1
    {
        return static_cast<Number>(engine() % static_cast<quint64>(limit));
    }

private:
    std::mt19937_64 engine;
};

/// What may go wrong with an answer.
enum class Fault {
    Drop,          ///< nothing is sent
    Duplicate,     ///< each piece is sent twice
    Delay,         ///< the answer comes later, by the amount in milliseconds
    WrongChecksum, ///< the reply's checksum is off by one
    Truncate,      ///< the reply ends early
    Oversize,      ///< the reply has bytes behind its end
    BlockFirst,    ///< the block comes before the reply
    ShortBlock,    ///< the block lacks bytes, by the amount
    LongBlock,     ///< the block has bytes too many, by the amount
    BlockChecksum, ///< the block's checksum byte is off by one (streams only)
    Garbage,       ///< random bytes come first, as many as the amount
    Flood,         ///< the answer comes as many times as the amount
    Noise,         ///< random bytes inside the reply, as many as the amount (streams only)
    LateBlock,     ///< the block comes later, by the amount in milliseconds (streams only)
    Glue,          ///< the answer waits for the next one, or for silence (streams only)
    Split,         ///< every byte is written by itself, the amount in ms apart (streams, endpoints)
    HangUp,        ///< half the answer, then a hang-up (streams, endpoints)
    Reset,         ///< the connection is reset instead of an answer (endpoints only)
    CloseAfter,    ///< a connection is closed after the amount of bytes (endpoints only)
    Refuse,        ///< connections are refused (endpoints only, lasting)
    NeverRead,     ///< connections are accepted and not read from (endpoints only, lasting)
};

constexpr int faultCount = static_cast<int>(Fault::NeverRead) + 1;

/// Who may show a fault: a device behind datagrams or a stream, or an on-screen-display endpoint.
enum class Faulty { Datagrams = 1, Stream = 2, Endpoint = 4 };

/// Which faults a device shows, and when. A fault strikes with a probability, or the first answers
/// that it can apply to (CloseAfter: connections). A lasting fault is on or off.
class Faults
{
public:
    struct Setting {
        double probability = 0; ///< 0 to 1
        int count = 0;          ///< strikes left, tried before the probability
        int amount = 0;         ///< see Fault
    };

    void set(Fault fault, const Setting& setting);
    int amount(Fault fault) const;

    /// Whether the fault strikes now. Uses up a count, else draws a number if the probability is
    /// not 0.
    bool strikes(Fault fault, SeededRandom& random);

    bool lasts(Fault fault) const; ///< whether a lasting fault is on

    /// Reads "name=25%", "name=3" (the first three answers) or either with ":amount" behind it;
    /// "name" alone for a lasting fault. Returns what was expected instead, empty if it is valid.
    QString parse(const QString& text);

    /// The names of the faults that are set but that \a who cannot show.
    QStringList unfit(Faulty who) const;

    static bool isLasting(Fault fault);
    static QString name(Fault fault);
    static QString help(); ///< one line for each fault

private:
    std::array<Setting, faultCount> settings;
};
