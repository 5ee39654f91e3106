#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Makes buffstream.inc, the bytes that tests/buffstream_test.cpp must write and be able to read:
        python3 buffstream.py > buffstream.inc
It writes 1024 bytes to a line, to keep their number small: the file is for the compiler, not for readers.
The values come from a small generator that the test has too; the file has two sequences of them, the first with the
least byte of each value in front, the second with the greatest."""
import struct

RECORDS = 1200
BYTES_PER_LINE = 1024


def values(seed):
    for _ in range(RECORDS):
        seed = (seed * 6364136223846793005 + 1442695040888963407) % 2**64
        yield (seed >> 33) % 6, seed


def encode(kind, bits, order):
    nan = bits >= 2**63  # one that looks like a signalling NaN in either order
    if kind <= 3:  # char, int16, int32, int64
        return struct.pack(order + "BHIQ"[kind], bits % 2 ** (8 << kind))
    if kind == 4:  # float32
        return struct.pack(order + "I", 0x7F81807F if nan else bits % 2**32)
    return struct.pack(order + "Q", 0x7FF100000000F07F if nan else bits)  # float64


print("// SPDX-License-Identifier: MIT")
for seed, order in (0, "<"), (1, ">"):
    data = b"".join(encode(kind, bits, order) for kind, bits in values(seed))
    for at in range(0, len(data), BYTES_PER_LINE):
        print('"' + "".join(f"\\x{byte:02x}" for byte in data[at : at + BYTES_PER_LINE]) + '"s')
    print(",")
