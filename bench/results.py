# SPDX-License-Identifier: MIT
"""What Google Benchmark wrote: the median time of every item and implementation, and the machine."""

import json
import os
import re
import statistics
import subprocess

NAME = re.compile(
    r"(?P<item>[^@/]+)@(?P<implementation>[^/]+)"
    r"(?:/(?P<size>\d+))?(?:/process_time)?(?P<wall>/real_time)?(?:/threads:(?P<threads>\d+))?$"
)


UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


class Figure:
    """The nanoseconds of one item in one implementation, for one size and number of threads."""

    def __init__(self, match, times):
        self.item = match["item"]
        self.implementation = match["implementation"]
        self.size = int(match["size"]) if match["size"] else None
        self.threads = int(match["threads"] or 1)
        self.median = statistics.median(times)


def figures(path):
    """The figures in a file of --benchmark_out."""
    with open(path, encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    times = {}
    for run in runs:
        if run["run_type"] != "iteration":
            continue
        if run.get("error_occurred"):
            raise SystemExit(f"{run['name']}: {run['error_message']}")
        clock = "real_time" if "/real_time" in run["name"] else "cpu_time"
        times.setdefault(run["name"], []).append(run[clock] * UNITS[run["time_unit"]])
    found = []
    for name, values in times.items():
        match = NAME.match(name)
        if not match:
            raise SystemExit(f"{name}: not a name of the form item@implementation")
        found.append(Figure(match, values))
    return found


def duration(nanoseconds):
    """A time for readers, with three digits."""
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def machine():
    """The machine and the compiler in a sentence."""

    def first(pattern, text):
        match = re.search(pattern, text, re.MULTILINE)
        return match[1].strip() if match else "unknown"

    def read(path):
        with open(path, encoding="utf-8") as file:
            return file.read()

    processor = re.sub(r"\((R|TM)\)", "", first(r"^model name\s*: (.*)$", read("/proc/cpuinfo")))
    megahertz = float(first(r"^cpu MHz\s*: (.*)$", read("/proc/cpuinfo")))
    memory = int(first(r"^MemTotal:\s*(\d+)", read("/proc/meminfo"))) / 2**20
    system = first(r'^PRETTY_NAME="(.*)"$', read("/etc/os-release"))
    compiler = subprocess.run(["gcc", "-dumpfullversion"], capture_output=True, text=True, check=True).stdout.strip()
    c_library = os.confstr("CS_GNU_LIBC_VERSION")
    return (
        f"{os.cpu_count()} cores of an {processor} at {megahertz / 1000:.1f} GHz, {memory:.0f} GiB of memory; "
        f"{system}, {c_library}, gcc {compiler} with -O2"
    )
