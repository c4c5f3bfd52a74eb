// SPDX-License-Identifier: MIT
// Any stream in any pieces through the library's acknowledgement parser and a plain one: they must
// take the same acknowledgements and leave the same bytes. A piece is a length and as many bytes; a
// length of 255 stands for 1100 bytes of noise, more than the parser looks at in one go.
#include "osdendpoint.h"
#include "osdframe.h"
#include "plainosdparser.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{

constexpr int longPiece = 255;
constexpr int longLength = 1100;

QByteArray nextPiece(QByteArray& script)
{
    const int length = static_cast<std::uint8_t>(script.at(0));
    script.remove(0, 1);
    if (length == longPiece) {
        return QByteArray(longLength, 'O');
    }
    QByteArray piece = script.left(length);
    script.remove(0, length);
    return piece;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    QByteArray script(reinterpret_cast<const char*>(data), static_cast<int>(size));
    OsdEndpoint endpoint;
    PlainOsdParser plain;
    std::vector<QByteArray> acknowledgements;
    while (!script.isEmpty()) {
        const QByteArray piece = nextPiece(script);
        endpoint.received.append(piece);
        plain.buffer += piece;
        while (endpoint.received.size() >= osdframe::acknowledgementLength) {
            const QByteArray bytes = endpoint.parseOnce();
            if (!bytes.isEmpty()) {
                acknowledgements.push_back(bytes);
            }
        }
        plain.passes();
        const int left = endpoint.received.size();
        if (acknowledgements != plain.acknowledgements || left != plain.buffer.size() ||
            endpoint.received.peek(left) != plain.buffer) {
            std::fprintf(stderr, "%zu and %zu acknowledgements, \"%s\" and \"%s\" left\n",
                         acknowledgements.size(), plain.acknowledgements.size(),
                         endpoint.received.peek(left).toHex().constData(),
                         plain.buffer.toHex().constData());
            std::abort();
        }
    }
    return 0;
}
