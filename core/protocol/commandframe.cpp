// SPDX-License-Identifier: MIT
#include "commandframe.h"

#include "utility_manage.h"

#include <array>
#include <cstring>

namespace
{

using Body = std::array<quint8, commandframe::bodyLength>;

constexpr char digits[] = "0123456789abcdef";

constexpr std::array<char, 512> makePairs()
{
    std::array<char, 512> pairs{};
    for (std::size_t byte = 0; byte < 256; ++byte) {
        pairs[2 * byte] = digits[byte >> 4];
        pairs[2 * byte + 1] = digits[byte & 0x0f];
    }
    return pairs;
}

constexpr quint8 noDigit = 0xff;

constexpr std::array<quint8, 256> makeValues()
{
    std::array<quint8, 256> values{};
    for (auto& value : values) {
        value = noDigit;
    }
    for (quint8 value = 0; value < 16; ++value) {
        values[static_cast<quint8>(digits[value])] = value;
    }
    for (quint8 value = 10; value < 16; ++value) {
        values[static_cast<std::size_t>('A' + value - 10)] = value;
    }
    return values;
}

constexpr std::array<char, 512> hexPairs = makePairs();
constexpr std::array<quint8, 256> hexValues = makeValues();

char* putPair(char* out, quint8 byte)
{
    std::memcpy(out, &hexPairs[std::size_t{2} * byte], 2);
    return out + 2;
}

template <class Bytes>
quint8 checksum(const Bytes& bytes, std::size_t count)
{
    unsigned sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += static_cast<quint8>(bytes[i]);
    }
    return static_cast<quint8>(sum);
}

Body bodyOf(const model_Protocoldata& record)
{
    Body body{record.HEAD, record.ADDR, record.CMD,  record.DAT1,
              record.DAT2, record.DAT3, record.DAT4, 0};
    body.back() = checksum(body, body.size() - 1);
    return body;
}

void setBody(model_Protocoldata& record, const Body& body)
{
    record.HEAD = body[0];
    record.ADDR = body[1];
    record.CMD = body[2];
    record.DAT1 = body[3];
    record.DAT2 = body[4];
    record.DAT3 = body[5];
    record.DAT4 = body[6];
    record.CHKSUM = body[7];
}

// Sixteen plain digits, which every 8-bit encoding reads alike. False: something else is there.
bool decodePlainDigits(const char* text, Body& body)
{
    unsigned seen = 0;
    for (std::size_t i = 0; i < body.size(); ++i) {
        const quint8 high = hexValues[static_cast<quint8>(text[2 * i])];
        const quint8 low = hexValues[static_cast<quint8>(text[2 * i + 1])];
        seen |= high | low;
        body[i] = static_cast<quint8>(high << 4 | (low & 0x0f));
    }
    return seen < 16;
}

// Qt 6 knows fewer blanks than Qt 5, and only one minus sign.
int parsePair(const QString& pair)
{
    constexpr QChar minusSign(0x2212);
    return pair.trimmed().replace(minusSign, QLatin1Char('-')).toInt(nullptr, 16);
}

bool decodeAnyText(const QString& text, model_Protocoldata& record)
{
    Body body{};
    int sent = 0;
    for (int i = 0; i < commandframe::bodyLength; ++i) {
        const int value = parsePair(text.mid(2 * i, 2));
        body[static_cast<std::size_t>(i)] = static_cast<quint8>(value);
        sent = value;
    }
    body.back() = checksum(body, body.size() - 1);
    setBody(record, body);
    return sent == body.back(); // as parsed: "-1" is not 0xff
}

bool decodeDigits(const QByteArray& frame, model_Protocoldata& record)
{
    using namespace commandframe;
    Body body{};
    if (frame.size() >= digitsOffset + digitsLength &&
        decodePlainDigits(frame.constData() + digitsOffset, body)) {
        const quint8 sent = body.back();
        body.back() = checksum(body, body.size() - 1);
        setBody(record, body);
        return sent == body.back();
    }
    return decodeAnyText(digitsOf(frame), record);
}

void putWord(QByteArray& out, quint16 value)
{
    out.append(static_cast<char>(Utility_Manage::getHighByte(value)));
    out.append(static_cast<char>(Utility_Manage::getLowByte(value)));
}

} // namespace

QByteArray commandframe::encodeText(const model_Protocoldata& record)
{
    const auto blockSize = record.arryDatablock.size();
    QByteArray frame(textLength + blockSize, Qt::Uninitialized);
    char* out = frame.data();
    *out++ = startMark;
    *out++ = commandMark;
    for (const quint8 byte : bodyOf(record)) {
        out = putPair(out, byte);
    }
    *out++ = endMark;
    if (blockSize > 0) {
        std::memcpy(out, record.arryDatablock.constData(), static_cast<std::size_t>(blockSize));
    }
    return frame;
}

QByteArray commandframe::toText(const QByteArray& bytes)
{
    QByteArray text(2 * bytes.size() + 3, Qt::Uninitialized);
    char* out = text.data();
    *out++ = startMark;
    *out++ = commandMark;
    for (const char byte : bytes) {
        out = putPair(out, static_cast<quint8>(byte));
    }
    *out = endMark;
    return text;
}

QByteArray commandframe::encodeBinary(const model_Protocoldata& record)
{
    const auto announced = static_cast<quint16>(record.arryDatablock.size());
    QByteArray frame;
    frame.reserve(binaryLength + record.arryDatablock.size());
    putWord(frame, record.aux1);
    frame.append(static_cast<char>(record.ADDR));
    frame.append(static_cast<char>(record.aux3));
    putWord(frame, record.aux4);
    putWord(frame, record.aux5);
    putWord(frame, announced);
    for (const quint8 byte : {record.CMD, record.DAT1, record.DAT2, record.DAT3, record.DAT4}) {
        frame.append(static_cast<char>(byte));
    }
    frame.append(static_cast<char>(checksum(frame.constData(), binaryLength - 1)));
    if (announced != 0) { // a block of 65536 bytes announces 0 and stays away
        frame.append(record.arryDatablock);
    }
    return frame;
}

bool commandframe::decodeText(const QByteArray& frame, model_Protocoldata& record)
{
    record.arryDatablock.clear(); // the caller's record may hold one
    return decodeDigits(frame, record);
}

QString commandframe::digitsOf(const QByteArray& frame)
{
    const QByteArray text = frame.mid(digitsOffset, digitsLength);
    return QString::fromLocal8Bit(text.mid(0, text.indexOf('\0')));
}

bool commandframe::decodeBinary(const QByteArray& head, model_Protocoldata& record)
{
    std::array<quint8, binaryLength> bytes{};
    std::memcpy(bytes.data(), head.constData(),
                std::min(bytes.size(), static_cast<std::size_t>(head.size())));
    const auto word = [&bytes](std::size_t high) {
        return static_cast<quint16>(Utility_Manage::combineTwoByte(bytes[high + 1], bytes[high]));
    };
    record.aux2 = word(0); // not aux1: hosts rely on this pairing
    record.ADDR = bytes[2];
    record.aux3 = bytes[3];
    record.aux4 = word(4);
    record.aux5 = word(6);
    record.aux6 = word(8);
    record.CMD = bytes[10];
    record.DAT1 = bytes[11];
    record.DAT2 = bytes[12];
    record.DAT3 = bytes[13];
    record.DAT4 = bytes[14];
    record.CHKSUM = bytes[15];
    record.arryDatablock.clear();
    return checksum(bytes, bytes.size() - 1) == bytes.back();
}
