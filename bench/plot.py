# SPDX-License-Identifier: MIT
"""Plots as SVG, readable on light and on dark pages."""

import html
import math
import pathlib

STYLE = """<style>
  text { font: 12px system-ui, sans-serif; fill: #1f2328 }
  .small { font-size: 11px; fill: #59636e }
  .title { font-size: 14px; font-weight: 600 }
  .grid { stroke: #d1d9e0; stroke-width: 1 }
  .one { stroke: #59636e; stroke-width: 1.5 }
  .faster { fill: #1a7f64 } .slower { fill: #3b76b8 } .missed { fill: #c0392b }
  .asked { stroke: #1f2328; stroke-width: 2 }
  .line { fill: none; stroke-width: 2 }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 } .small { fill: #9198a1 }
    .grid { stroke: #30363d } .one { stroke: #9198a1 } .asked { stroke: #e6edf3 }
    .faster { fill: #3fb68b } .slower { fill: #6ea8e0 } .missed { fill: #ef6b5e }
  }
</style>"""

COLOURS = ["#1a7f64", "#3b76b8", "#c77d11", "#8250df", "#c0392b", "#59636e"]


def replace_between_marks(path, mark, text):
    """Replaces what stands between <!-- MARK begins --> and <!-- MARK ends --> in a document."""
    document = pathlib.Path(path)
    begins, ends = f"<!-- {mark} begins -->\n", f"<!-- {mark} ends -->"
    before, _, rest = document.read_text(encoding="utf-8").partition(begins)
    _, found, after = rest.partition(ends)
    if not found:
        raise SystemExit(f"{path}: no marks of {mark}")
    document.write_text(f"{before}{begins}\n{text}\n{ends}{after}", encoding="utf-8")


class Drawing:
    def __init__(self, width, height, title):
        self.parts = [
            "<!-- SPDX-License-Identifier: MIT -->",
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
            f'height="{height}" role="img">',
            f"<title>{html.escape(title)}</title>",
            STYLE,
        ]

    def text(self, x, y, text, anchor="start", kind=""):
        self.parts.append(
            f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{kind}">{html.escape(text)}</text>'
        )

    def line(self, x1, y1, x2, y2, kind):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>')

    def bar(self, x1, x2, y, height, kind):
        left, right = sorted((x1, x2))
        width = max(right - left, 1)
        self.parts.append(
            f'<rect x="{left:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height}" rx="2" class="{kind}"/>'
        )

    def curve(self, points, colour, dashed):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        dash = ' stroke-dasharray="5 4"' if dashed else ""
        self.parts.append(f'<polyline points="{path}" class="line" style="stroke: {colour}"{dash}/>')
        for x, y in points:
            self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" style="fill: {colour}"/>')

    def done(self):
        return "\n".join(self.parts + ["</svg>", ""])


class LogAxis:
    """Places values from low to high between two coordinates, each factor as far as the same factor elsewhere."""

    def __init__(self, low, high, start, end):
        self.low, self.high = math.log(low), math.log(high)
        self.start, self.end = start, end

    def __call__(self, value):
        share = (math.log(value) - self.low) / ((self.high - self.low) or 1)
        return self.start + min(max(share, 0), 1) * (self.end - self.start)


def ratios(sections):
    """The ratios ours/theirs as bars from 1: to the left faster than the peer. A mark shows what is asked."""
    names, left, right, step = 330, 350, 900, 19
    count = sum(len(rows) + 1.6 for rows in sections.values())
    height = 70 + count * step
    axis = LogAxis(1 / 32, 8, left, right)
    drawing = Drawing(960, round(height), "Our time divided by the peer's, for every row of the table")
    drawing.text(left, 20, "our time / the peer's time", kind="title")
    drawing.text(left, 38, "bars to the left of 1: faster than the peer; the upright marks: what is asked", kind="small")
    for ratio in (1 / 32, 1 / 16, 1 / 8, 1 / 4, 1 / 2, 1, 2, 4, 8):
        drawing.line(axis(ratio), 60, axis(ratio), height - 8, "one" if ratio == 1 else "grid")
        drawing.text(axis(ratio), 55, f"{ratio:g}" if ratio >= 1 else f"1/{1 / ratio:g}", "middle", "small")
    y = 60
    for section, rows in sections.items():
        y += 1.6 * step
        drawing.text(8, y - 5, section, kind="title")
        for row in rows:
            drawing.text(names, y + 13, f"{row.item} : {row.peer}", "end")
            if row.measured:
                kind = "missed" if not row.holds else "faster" if row.ratio <= 1 else "slower"
                drawing.bar(axis(1), axis(row.ratio), y + 4, step - 8, kind)
                drawing.text(right + 8, y + 13, f"{row.ratio:.2f}", kind="small")
            drawing.line(axis(row.asked), y + 2, axis(row.asked), y + step - 2, "asked")
            y += step
    return drawing.done()


def curves(title, x_label, y_label, series):
    """Lines over two logarithmic axes. SERIES gives for each name the list of its (x, y); ours are drawn solid."""
    left, right, top, bottom = 70, 520, 48, 320
    xs = [x for points in series.values() for x, _ in points]
    ys = [y for points in series.values() for _, y in points]
    low, high = 10 ** math.floor(math.log10(min(ys))), 10 ** math.ceil(math.log10(max(ys)))
    across = LogAxis(min(xs), max(xs), left, right)
    up = LogAxis(low, max(high, low * 10), bottom, top)
    drawing = Drawing(760, 372, title)
    drawing.text(left, 22, title, kind="title")
    drawing.text(left, 40, y_label, kind="small")
    drawing.text((left + right) / 2, bottom + 40, x_label, "middle", "small")
    for value in decades(low, max(high, low * 10)):
        drawing.line(left, up(value), right, up(value), "grid")
        drawing.text(left - 8, up(value) + 4, number(value), "end", "small")
    labelled = 0
    for value in sorted(set(xs)):
        if across(value) >= labelled + 30:  # labels closer than this would meet
            drawing.text(across(value), bottom + 20, number(value), "middle", "small")
            labelled = across(value)
    for i, (name, points) in enumerate(series.items()):
        colour = COLOURS[i % len(COLOURS)]
        drawing.curve([(across(x), up(y)) for x, y in points], colour, not name.startswith("eko"))
        drawing.line(right + 20, top + 20 * i, right + 44, top + 20 * i, "grid")
        drawing.curve([(right + 20, top + 20 * i), (right + 44, top + 20 * i)], colour, not name.startswith("eko"))
        drawing.text(right + 52, top + 20 * i + 4, name)
    return drawing.done()


def decades(low, high):
    value = low
    while value <= high * 1.0001:
        yield value
        value *= 10


def number(value):
    """A number with a letter for its size; with Ki and Mi when it is a round number of those."""
    step, letters = (1024, ("Gi", "Mi", "Ki")) if value >= 1024 and value % 1024 == 0 else (1000, ("G", "M", "k"))
    for power, letter in zip((3, 2, 1), letters):
        if value >= step**power:
            return f"{value / step**power:g}{letter}"
    return f"{value:g}"
