#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The bench's table: every goal of goals.tsv beside what was measured.

report.py RESULTS [--only REGEX] [--json FILE] [--markdown FILE] [--readme FILE] [--plot FILE] [--check]

RESULTS is what eko_bench wrote with --benchmark_out. --markdown puts the table between the two marks of a document,
--readme a short one between those of another, --plot draws the ratios, --check fails when a goal is missed or was not
measured.
"""

import argparse
import csv
import json
import pathlib
import re
import sys

import plot
import results

GOALS = pathlib.Path(__file__).with_name("goals.tsv")


class Row:
    """One goal, and how it was met. The times are None when one of both was not measured."""

    def __init__(self, goal, medians):
        self.item, self.peer, self.asked, self.section, self.work = goal
        self.asked = float(self.asked)
        self.ours = medians.get((self.item, "eko"))
        self.theirs = medians.get((self.item, self.peer))
        self.measured = self.ours is not None and self.theirs is not None
        self.ratio = self.ours / self.theirs if self.measured else None
        self.holds = self.measured and round(self.ratio, 2) <= self.asked

    @property
    def verdict(self):
        if not self.measured:
            return "not measured"
        return "holds" if self.holds else "missed"

    def cells(self):
        def shown(value, form):
            return "-" if value is None else form(value)

        return [
            self.item,
            self.work,
            shown(self.ours, results.duration),
            f"{shown(self.theirs, results.duration)} {self.peer}",
            shown(self.ratio, "{:.2f}".format),
            f"{self.asked:g}",
            self.verdict,
        ]


HEADINGS = ["item", "work", "ours", "peer", "ratio", "asked", "verdict"]


def goals(only):
    with open(GOALS, encoding="utf-8", newline="") as file:
        for number, goal in enumerate(csv.reader(file, delimiter="\t", quoting=csv.QUOTE_NONE), 1):
            if not goal or goal[0].startswith("#"):
                continue
            if len(goal) != 5:
                raise SystemExit(f"{GOALS.name}:{number}: five columns are wanted")
            if re.search(only, goal[0]):
                yield goal


def rows_of(figures, only):
    medians = {(f.item, f.implementation): f.median for f in figures if f.size is None}
    return [Row(goal, medians) for goal in goals(only)]


def sections(rows):
    """The rows by section, in the order of the goals."""
    found = {}
    for row in rows:
        found.setdefault(row.section, []).append(row)
    return found


def print_table(rows):
    table = [HEADINGS] + [row.cells() for row in rows]
    widths = [max(len(line[i]) for line in table) for i in range(len(HEADINGS))]
    for section, its_rows in [("", [])] + list(sections(rows).items()):
        if section:
            print(f"\n{section}")
        for cells in [row.cells() for row in its_rows] if section else [HEADINGS]:
            print("  ".join(cell.ljust(width) for cell, width in zip(cells, widths)).rstrip())
    held = sum(row.holds for row in rows)
    print(f"\n{held} of {len(rows)} goals hold")


def write_json(path, rows):
    keys = ("item", "work", "section", "ours", "peer", "theirs", "ratio", "asked", "verdict")
    table = {"machine": results.machine(), "rows": [{key: getattr(row, key) for key in keys} for row in rows]}
    pathlib.Path(path).write_text(json.dumps(table, indent=1, ensure_ascii=False) + "\n", encoding="utf-8")


def markdown(rows):
    lines = [f"Measured on {results.machine()}.", ""]
    for section, its_rows in sections(rows).items():
        lines += [f"### {section}", "", "| Work | Ours | Peer | Ratio | Asked | |", "|---|--:|--:|--:|--:|---|"]
        for row in its_rows:
            _, work, ours, theirs, ratio, asked, verdict = (cell.replace("|", "\\|") for cell in row.cells())
            verdict = verdict if row.holds else f"**{verdict}**"
            lines.append(f"| {work} | {ours} | {theirs} | {ratio} | {asked} | {verdict} |")
        lines.append("")
    return "\n".join(lines)


def middle(rows):
    """The row whose ratio has as many above it as below, or one more below. None where nothing was measured."""
    ranked = sorted((row for row in rows if row.measured), key=lambda row: row.ratio)
    return ranked[len(ranked) // 2] if ranked else None


def summary(rows):
    held = sum(row.holds for row in rows)
    lines = [
        f"Measured on {results.machine()}. A ratio below 1 means that eko is faster. Each row is the one of its section "
        f"whose ratio is in the middle; {held} of {len(rows)} goals hold. [All rows](docs/performance.md), with the goals "
        "and how it was measured.",
        "",
        "| Section | Work | eko | Instead | Ratio |",
        "|---|---|--:|--:|--:|",
    ]
    for section, its_rows in sections(rows).items():
        row = middle(its_rows)
        if row:
            _, work, ours, theirs, ratio, _, _ = (cell.replace("|", "\\|") for cell in row.cells())
            lines.append(f"| {section} | {work} | {ours} | {theirs} | {ratio} |")
    return "\n".join(lines + [""])


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("results")
    arguments.add_argument("--only", default="")
    arguments.add_argument("--json")
    arguments.add_argument("--markdown")
    arguments.add_argument("--readme")
    arguments.add_argument("--plot")
    arguments.add_argument("--check", action="store_true")
    options = arguments.parse_args()

    rows = rows_of(results.figures(options.results), options.only)
    if not rows:
        raise SystemExit(f"no goal is called like {options.only}")
    print_table(rows)
    if options.json:
        write_json(options.json, rows)
    if options.markdown:
        plot.replace_between_marks(options.markdown, "table", markdown(rows))
    if options.readme:
        plot.replace_between_marks(options.readme, "bench", summary(rows))
    if options.plot:
        pathlib.Path(options.plot).write_text(plot.ratios(sections(rows)), encoding="utf-8")
    if options.check and not all(row.holds for row in rows):
        sys.exit("bench: " + ", ".join(row.item for row in rows if not row.holds) + ": not as asked")


if __name__ == "__main__":
    main()
