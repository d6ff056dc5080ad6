"""Draws the pictures of these pages from the constants of the code: docs/pictures.py [DIRECTORY]."""

import re
import sys
from pathlib import Path

here = Path(__file__).parent
source = here.parent / "Datasource/src"


def constant(header: str, pattern: str) -> str:
    found = re.search(pattern, (source / header).read_text())
    assert found, f"{header}: nothing like {pattern}"
    return found[1]


BLOCK = int(constant("base/blockSize.h", r"kBlockSize = (\d[\d']+)").replace("'", ""))
RECORD = int(constant("format/compressedLayout.h", r"sizeof\(filePosRecord\) == (\d+)"))
HEADING = int(constant("format/compressedLayout.h", r"sizeof\(compressionHeading\) == (\d+)"))
SUFFIX = constant("part/heldSideFile.cpp", r'"(\.orva-[a-z]+)"')

STYLE = """
  text { font: 13px system-ui, sans-serif; fill: #24292f; }
  .small { font-size: 11.5px; fill: #424a53; } .mid { text-anchor: middle; } .bold { font-weight: 600; }
  rect { stroke: #57606a; stroke-width: 1; rx: 3; }
  .host { fill: #eaeef2; } .mark { fill: #ffd8b5; } .block { fill: #b6e3ff; } .index { fill: #d8f5c8; } .risk { fill: #ffd7d5; }
  path { fill: none; stroke: #57606a; stroke-width: 1.3; marker-end: url(#tip); } .faint { stroke-dasharray: 4 3; }
  #tip path { fill: #57606a; stroke: none; marker-end: none; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; } .small { fill: #c0c8d0; } rect, path { stroke: #9da7b3; } #tip path { fill: #9da7b3; }
    .host { fill: #30363d; } .mark { fill: #7a4a1e; } .block { fill: #1b4b72; } .index { fill: #2f5a26; } .risk { fill: #7d2b2b; }
  }"""


class Picture:
    def __init__(self, title: str, width: int, height: int) -> None:
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" role="img">',
            f"<title>{title}</title><style>{STYLE}\n</style>",
            '<defs><marker id="tip" viewBox="0 0 8 8" refX="7" refY="4" markerWidth="7" markerHeight="7" orient="auto">'
            '<path d="M0 0 8 4 0 8z"/></marker></defs>',
        ]

    def text(self, x: float, y: float, text: str, kind: str = "") -> None:
        self.parts.append(f'<text x="{x:g}" y="{y:g}" class="{kind}">{text}</text>')

    def box(self, x: float, y: float, width: float, height: float, kind: str, *lines: str) -> None:
        self.parts.append(f'<rect x="{x:g}" y="{y:g}" width="{width:g}" height="{height:g}" class="{kind}"/>')
        top = y + height / 2 + 4.5 - 8 * (len(lines) - 1)
        for i, line in enumerate(lines):
            self.text(x + width / 2, top + 16 * i, line, "mid bold" if i == 0 else "mid small")

    def arrow(self, path: str, kind: str = "") -> None:
        self.parts.append(f'<path d="{path}" class="{kind}"/>')

    def save(self, path: Path) -> None:
        path.write_text("\n".join([*self.parts, "</svg>\n"]))


def the_file() -> Picture:
    p = Picture("The parts of a file and what points to what", 760, 200)
    y, high = 70, 52
    p.box(10, y, 110, high, "host", "dictionary", "the host's own")
    p.box(120, y, 84, high, "mark", "heading", f"{HEADING} bytes")
    for i, (x, name) in enumerate([(204, "block 0"), (314, "block 1"), (454, "block n")]):
        p.box(x, y, 110, high, "block", name, "a zlib stream")
    p.text(439, y + 30, "…", "mid")
    p.box(564, y, 186, high, "index", "index", f"{RECORD} bytes a block, and {RECORD}")
    p.arrow(f"M162 {y} C 162 20, 600 20, 600 {y - 2}")
    p.text(380, 24, "written last of all: a file without it is unfinished", "small mid")
    for x, start in [(259, 640), (369, 670), (509, 700)]:
        p.arrow(f"M{start} {y + high} C {start} 172, {x} 172, {x} {y + high + 2}", "faint")
    p.text(120, y + high + 20, "S, where row 0 begins", "small")
    p.text(480, 190, f"up to {BLOCK:,} bytes of rows a block; any block inflates by itself", "small mid")
    return p


def the_roads() -> Picture:
    p = Picture("The road of rows into a file and out of it", 760, 236)
    stops = [(10, "your rows"), (206, "block memory"), (402, "deflate"), (598, "file")]
    for row, (y, title) in enumerate([(42, "Writing"), (152, "Reading")]):
        p.text(10, y - 12, title, "bold")
        names = [n for _, n in stops] if row == 0 else ["your rows", "the call's memory", "inflate", "file"]
        notes = ["write, write_rows", f"{BLOCK:,} bytes", "your thread, or several", "one write a block"]
        if row == 1:
            notes = ["read_at, take", "whole blocks directly", "a block a thread", "one read a block"]
        for (x, _), name, note, kind in zip(stops, names, notes, ["host", "block", "mark", "index"]):
            p.box(x, y, 152, 50, kind, name, note)
        for x, _ in stops[:-1]:
            p.arrow(f"M{x + 152} {y + 25} h42" if row == 0 else f"M{x + 194} {y + 25} h-42")
    p.text(10, 225, "A block that is read in part is kept, so that the next row of it costs a copy.", "small")
    return p


def the_side_file() -> Picture:
    p = Picture("What stands on the disk during an append, and what a crash then leads to", 760, 250)
    steps = [
        ("host", "finished", "old rows"), ("mark", "side file", "old tail kept"), ("risk", "blocks, index", "tail overwritten"),
        ("index", "heading", "new rows count"), ("host", "finished", "side file gone"),
    ]
    p.text(10, 22, f"An append with its side file, NAME{SUFFIX}: each step is on the disk before the next begins", "bold")
    for i, (kind, *lines) in enumerate(steps):
        p.box(10 + 152 * i, 44, 122, 50, kind, *lines)
        if i < 4:
            p.arrow(f"M{132 + 152 * i} 69 h28")
    p.text(10, 160, "After a crash:", "bold")
    p.box(86, 176, 274, 50, "mark", "roll-back", "the file is byte for byte what it was")
    p.box(466, 176, 274, 50, "index", "history", "all new rows stand, the side file goes")
    for x, to in [(223, 200), (375, 290), (527, 540)]:
        p.arrow(f"M{x} 96 C {x} 140, {to} 130, {to} 174", "faint")
    return p


if __name__ == "__main__":
    directory = Path(sys.argv[1]) if len(sys.argv) > 1 else here / "pictures"
    directory.mkdir(parents=True, exist_ok=True)
    for name, draw in {"file": the_file, "roads": the_roads, "sideFile": the_side_file}.items():
        draw().save(directory / f"{name}.svg")
