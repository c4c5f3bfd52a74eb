// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <initializer_list>

/// Replies as a device sends them, written without the library's codec.
namespace replybytes
{

/// The sum of the bytes, modulo 256.
inline char sumOf(const QByteArray& bytes)
{
    int sum = 0;
    for (const char byte : bytes) {
        sum += static_cast<quint8>(byte);
    }
    return static_cast<char>(sum);
}

/// A standard reply with a right checksum; \a low and \a high are the announced block length.
inline QByteArray text(int command, int subCode, int low = 0, int high = 0, int address = 1)
{
    QByteArray body;
    for (const int byte : {0x5a, address, command, subCode, 0x07, low, high}) {
        body.append(static_cast<char>(byte));
    }
    body.append(sumOf(body));
    return "<F" + body.toHex() + ">";
}

/// A block of \a length bytes (1 or more) with a right checksum at its end. Holds start marks.
inline QByteArray block(int length, int seed = 1)
{
    QByteArray bytes;
    for (int i = 0; i + 1 < length; ++i) {
        bytes.append(i % 17 == 3 ? '<' : static_cast<char>(i * 31 + seed));
    }
    bytes.append(sumOf(bytes));
    return bytes;
}

/// The head of a binary reply that announces a block of \a length bytes.
inline QByteArray head(int length, int command = 0x31, int subCode = 0x02)
{
    QByteArray bytes;
    for (const int byte : {0xf1, 0x1f, 0x01, 0x33, 0x44, 0x55, 0x66, 0x77, length >> 8,
                           length & 0xff, command, subCode, 0x0a, 0x0b, 0x0c}) {
        bytes.append(static_cast<char>(byte));
    }
    bytes.append(sumOf(bytes));
    return bytes;
}

} // namespace replybytes
