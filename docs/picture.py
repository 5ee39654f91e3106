#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A terminal as SVG, showing a text.

picture.py TEXT TITLE PICTURE

Lines that begin with "$ " are commands, those with "# " say what comes.
"""

import html
import pathlib
import sys

CHARACTER, LINE, MARGIN, BAR = 7.8, 18, 16, 34  # width of one, distance of two lines, sides, title: in pixels
KINDS = {"$ ": "command", "# ": "comment"}

STYLE = """<style>
  text { font: 13px ui-monospace, SFMono-Regular, Menlo, Consolas, "DejaVu Sans Mono", monospace; fill: #d6deeb }
  .title { fill: #8b98a9 } .comment { fill: #7fb8e6 } .command { fill: #8fd694; font-weight: 600 }
  .window { fill: #16202c; stroke: #3a4757 } .bar { stroke: #2a3645 }
</style>"""


def line(number, text):
    """One line of the terminal. Its length is given, so that columns stand below each other in any font."""
    if not text:
        return ""
    kind = KINDS.get(text[:2], "output")
    x, y, width = MARGIN, BAR + LINE * (number + 1), CHARACTER * len(text)
    return (
        f'<text x="{x}" y="{y}" class="{kind}" xml:space="preserve" textLength="{width:.1f}" '
        f'lengthAdjust="spacingAndGlyphs">{html.escape(text)}</text>\n'
    )


def picture(title, lines):
    width = round(CHARACTER * max(len(text) for text in lines) + 2 * MARGIN)
    height = BAR + LINE * len(lines) + MARGIN
    lights = "".join(
        f'<circle cx="{MARGIN + 5 + 18 * i}" cy="{BAR / 2 - 1}" r="5" fill="{colour}"/>'
        for i, colour in enumerate(("#e0625a", "#dfb13f", "#5fb760"))
    )
    return (
        "<!-- SPDX-License-Identifier: MIT -->\n"
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}" '
        f'role="img">\n<title>{html.escape(title)}</title>\n{STYLE}\n'
        f'<rect x=".5" y=".5" width="{width - 1}" height="{height - 1}" rx="8" class="window"/>\n'
        f'<path d="M.5 {BAR - 6}.5H{width - 1}" class="bar"/>\n{lights}\n'
        f'<text x="{width / 2}" y="{BAR / 2 + 3}" text-anchor="middle" class="title">{html.escape(title)}</text>\n'
        + "".join(line(number, text) for number, text in enumerate(lines))
        + "</svg>\n"
    )


def main():
    if len(sys.argv) != 4:
        raise SystemExit(__doc__)
    source, title, target = sys.argv[1:]
    lines = pathlib.Path(source).read_text(encoding="utf-8").strip("\n").split("\n")
    pathlib.Path(target).write_text(picture(title, lines), encoding="utf-8")


if __name__ == "__main__":
    main()
