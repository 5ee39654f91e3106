#!/usr/bin/env python3
"""Makes buffstream.inc, the bytes that tests/buffstream_test.cpp must write and be able to read:
        python3 buffstream.py > buffstream.inc
The values come from a small generator that the test has too; the file has two sequences of them, the first with the
least byte of each value in front, the second with the greatest."""
import struct

RECORDS = 800


def values(seed):
    for _ in range(RECORDS):
        seed = (seed * 6364136223846793005 + 1442695040888963407) % 2**64
        yield (seed >> 33) % 10, seed


def text(bits):
    return str(bits)[: bits // 2**40 % 23].encode()


def signed(bits, width):
    bits %= 2**width
    return bits - 2**width if bits >= 2 ** (width - 1) else bits


def encode(kind, bits, order):
    if kind <= 3:  # char, int16, int32, int64
        return struct.pack(order + "bhiq"[kind], signed(bits, 8 << kind))
    if kind == 4:
        return struct.pack(order + "f", signed(bits, 16) / 16)
    if kind == 5:
        return struct.pack(order + "d", signed(bits, 32) / 1024)
    if kind <= 7:  # bytes, and a string
        return text(bits)
    if kind == 8:  # a framed string
        return struct.pack(order + "I", len(text(bits))) + text(bits)
    return struct.pack(order + "I", 2**32 - 1)  # a framed null


for seed, order in (0, "<"), (1, ">"):
    data = b"".join(encode(kind, bits, order) for kind, bits in values(seed))
    for at in range(0, len(data), 28):
        print('"' + "".join(f"\\x{byte:02x}" for byte in data[at : at + 28]) + '"s')
    print(",")
