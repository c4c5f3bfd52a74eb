#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes golden_frames.txt: frames made by a generator that shares nothing with the library.

A line is: kind, the record's fields in hexadecimal, the block in hexadecimal or "-", the frame in
hexadecimal. kind is "text" (fields HEAD ADDR CMD DAT1 DAT2 DAT3 DAT4) or "binary" (fields aux1 ADDR
aux3 aux4 aux5 CMD DAT1 DAT2 DAT3 DAT4).
"""
import random
import struct

random.seed(20260301)


def text_frame(fields, block):
    body = bytes(fields)
    body += bytes([sum(body) & 0xFF])
    return b"<T" + body.hex().encode("ascii") + b">" + block


def binary_frame(fields, block):
    aux1, addr, aux3, aux4, aux5, *rest = fields
    head = struct.pack(">HBBHHH5B", aux1, addr, aux3, aux4, aux5, len(block) & 0xFFFF, *rest)
    head += bytes([sum(head) & 0xFF])
    return head + (block if len(block) & 0xFFFF else b"")


def row(kind, fields, block):
    frame = (text_frame if kind == "text" else binary_frame)(fields, block)
    return " ".join([kind, ",".join("%x" % f for f in fields), block.hex() or "-", frame.hex()])


def blocks():
    yield b""
    yield b"\x00"
    yield b"<F>" * 3
    yield bytes(range(256))
    yield b"\xff" * 64
    yield random.randbytes(145)


def main():
    rows = []
    bodies = [[1, 2, 3, 4, 5, 6, 7], [0] * 7, [0xFF] * 7, [0xAB, 0xCD, 0xEF, 0x80, 0x7F, 0, 1],
              [0xFF, 0xFF, 0x01, 0, 0, 0, 0], [0x80, 0x90, 0xA0, 0xB0, 0xC0, 0xD0, 0xE0]]
    bodies += [[random.randrange(256) for _ in range(7)] for _ in range(60)]
    heads = [[0x1234, 1, 2, 0x3456, 0x789A, 3, 4, 5, 6, 7], [0] * 10,
             [0xFFFF, 0xFF, 0xFF, 0xFFFF, 0xFFFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF],
             [0xF11F, 0x80, 0x7F, 0x8000, 0x00FF, 0x9A, 0xA0, 0, 1, 0x80]]
    heads += [[random.randrange(65536), random.randrange(256), random.randrange(256),
               random.randrange(65536), random.randrange(65536)] +
              [random.randrange(256) for _ in range(5)] for _ in range(60)]
    for number, fields in enumerate(bodies):
        for block in blocks() if number < 4 else [random.randbytes(random.randrange(40))]:
            rows.append(row("text", fields, block))
    for number, fields in enumerate(heads):
        for block in blocks() if number < 4 else [random.randbytes(random.randrange(40))]:
            rows.append(row("binary", fields, block))
    with open("golden_frames.txt", "w", encoding="ascii") as out:
        out.write("\n".join(rows) + "\n")


main()
