// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <vector>

/// The acknowledgements' buffer and the parser's pass, written down once more as plain as can be.
struct PlainOsdParser {
    QByteArray buffer;
    std::vector<QByteArray> acknowledgements;

    /// Looks for the mark in peeked bytes; whether an acknowledgement is complete.
    bool find(const QByteArray& peeked)
    {
        int mark = -1;
        for (int i = 0; i + 1 < peeked.size() && mark < 0; ++i) {
            mark = peeked.at(i) == 'O' && peeked.at(i + 1) == 'K' ? i : -1;
        }
        if (mark < 0) {
            buffer = buffer.mid(peeked.size());
            return false;
        }
        buffer = buffer.mid(mark);
        return buffer.left(1024).size() >= 3;
    }

    /// Passes until too few bytes are left for another.
    void passes()
    {
        while (buffer.left(1024).size() >= 3) {
            if (find(buffer.left(1024))) {
                acknowledgements.push_back(buffer.left(3));
                buffer = buffer.mid(3);
            }
        }
    }
};
