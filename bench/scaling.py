#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Plots how the costs grow: every item scale.WHAT.AXIS of the bench becomes DIRECTORY/WHAT-AXIS.svg.

scaling.py RESULTS DIRECTORY DOCUMENT

RESULTS is what eko_bench wrote with --benchmark_out. The AXIS is "threads", or what the sizes count. The list of the
plots goes between the two marks of DOCUMENT, which names their directory as it is called beside it.
"""

import pathlib
import sys

import plot
import results

TITLES = pathlib.Path(__file__).with_name("scaling.tsv")


def titles():
    """Item to its title and its words under the horizontal axis."""
    lines = TITLES.read_text(encoding="utf-8").splitlines()
    return {item: words for item, *words in (line.split("\t") for line in lines if line and line[0] != "#")}


def series_by_item(figures):
    found = {}
    for figure in figures:
        if not figure.item.startswith("scale."):
            continue
        x = figure.threads if figure.item.endswith(".threads") else figure.size
        found.setdefault(figure.item, {}).setdefault(figure.implementation, []).append((x, figure.median))
    return found


def main():
    if len(sys.argv) != 4:
        raise SystemExit(__doc__)
    directory, document = pathlib.Path(sys.argv[2]), sys.argv[3]
    directory.mkdir(parents=True, exist_ok=True)
    described, shown = titles(), []
    for item, series in series_by_item(results.figures(sys.argv[1])).items():
        title, x_label = described[item]
        file = directory / (item.removeprefix("scale.").replace(".", "-") + ".svg")
        lines = {name: sorted(points) for name, points in sorted(series.items(), key=lambda it: not it[0].startswith("eko"))}
        file.write_text(plot.curves(title, x_label, "nanoseconds per operation", lines), encoding="utf-8")
        shown.append(f"![{title}]({directory.name}/{file.name})")
    plot.replace_between_marks(document, "scaling", "\n".join(shown))


if __name__ == "__main__":
    main()
