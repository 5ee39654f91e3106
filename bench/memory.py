#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What the allocators and the library keep: tables between the two marks of a document.

memory.py EKO_BENCH DOCUMENT

Every figure comes from a process of its own: what live blocks add to its resident memory, and what starting
and stopping the library costs (the medians of 21 processes).
"""

import statistics
import subprocess
import sys

import plot

SIZES = (16, 64, 256)
PROCESSES = 21


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def resident(program):
    lines = [
        "| Bytes that a live block keeps resident | " + " | ".join(f"{size} bytes" for size in SIZES) + " |",
        "|---|" + "--:|" * len(SIZES),
    ]
    for allocator in output(program, "resident").split():
        cells = [float(output(program, "resident", allocator, str(size))) for size in SIZES]
        lines.append(f"| {allocator} | " + " | ".join(f"{cell:.1f}" for cell in cells) + " |")
    return lines


def startup(program):
    runs = [dict(line.split() for line in output(program, "startup").splitlines()) for _ in range(PROCESSES)]

    def median(key):
        return statistics.median(float(run[key]) for run in runs)

    return [
        "| | Start | Stop |",
        "|---|--:|--:|",
        f"| microseconds | {median('start_us'):.0f} | {median('stop_us'):.0f} |",
        f"| resident KiB that it adds | {median('start_bytes') / 1024:.0f} | {median('stop_bytes') / 1024:.0f} |",
    ]


def main():
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    program, document = sys.argv[1:]
    plot.replace_between_marks(document, "memory", "\n".join(resident(program) + [""] + startup(program)))


if __name__ == "__main__":
    main()
