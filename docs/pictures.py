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

WIDTH = 520  # so that a telephone's 400 points leave letters of 10
STYLE = """
  text { font: 13px system-ui, sans-serif; fill: #24292f; }
  .small { font-size: 12px; fill: #424a53; } .mid { text-anchor: middle; } .bold { font-weight: 600; }
  rect { stroke: #57606a; stroke-width: 1; rx: 3; } .paper { fill: #fff; stroke: none; }
  .host { fill: #eaeef2; } .mark { fill: #ffd8b5; } .block { fill: #b6e3ff; } .index { fill: #d8f5c8; } .risk { fill: #ffd7d5; }
  path { fill: none; stroke: #57606a; stroke-width: 1.3; marker-end: url(#tip); } .faint { stroke-dasharray: 4 3; }
  #tip path { fill: #57606a; stroke: none; marker-end: none; }
  @media (prefers-color-scheme: dark) {
    .paper { fill: #131416; } text { fill: #e6edf3; } .small { fill: #c0c8d0; }
    rect, path { stroke: #9da7b3; } #tip path { fill: #9da7b3; }
    .host { fill: #30363d; } .mark { fill: #7a4a1e; } .block { fill: #1b4b72; } .index { fill: #2f5a26; } .risk { fill: #7d2b2b; }
  }"""


class Picture:
    def __init__(self, title: str, height: int) -> None:
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" role="img">',
            f"<title>{title}</title><style>{STYLE}\n</style>",
            '<defs><marker id="tip" viewBox="0 0 8 8" refX="7" refY="4" markerWidth="7" markerHeight="7" orient="auto">'
            f'<path d="M0 0 8 4 0 8z"/></marker></defs><rect class="paper" width="{WIDTH}" height="{height}"/>',
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
    p = Picture("The parts of a file and what points to what", 196)
    y, high = 66, 56
    p.box(5, y, 92, high, "host", "dictionary", "any bytes")
    p.box(97, y, 72, high, "mark", "heading", f"{HEADING} bytes")
    for x, name in [(169, "block 0"), (253, "block 1"), (357, "block n")]:
        p.box(x, y, 84, high, "block", name, "zlib stream")
    p.text(347, y + 32, "…", "mid")
    p.box(441, y, 74, high, "index", "index", f"{RECORD} bytes", "a block")
    p.arrow(f"M133 {y} C 133 22, 478 22, 478 {y - 2}")
    p.text(306, 20, "The heading is written last: a file without it is unfinished.", "mid")
    for x, start in [(211, 460), (295, 478), (399, 496)]:
        p.arrow(f"M{start} {y + high} C {start} 168, {x} 168, {x} {y + high + 2}", "faint")
    p.text(5, 186, f"A block holds up to {BLOCK:,} bytes of rows and inflates by itself.")
    return p


def the_roads() -> Picture:
    p = Picture("The road of rows into a file and out of it", 282)
    roads = {
        "Writing": [("your rows", "write", "write_rows"), ("a block", f"{BLOCK:,}", "bytes at most"),
                    ("deflate", "your thread,", "or several"), ("file", "one write", "a block")],
        "Reading": [("your rows", "read_at", "take"), ("memory", "the call's, or", "a kept block"),
                    ("inflate", "a block", "a thread"), ("file", "one read", "a block")],
    }
    for y, (title, stops) in zip((36, 160), roads.items()):
        p.text(5, y - 12, title, "bold")
        for i, (stop, kind) in enumerate(zip(stops, ["host", "block", "mark", "index"])):
            p.box(5 + 136 * i, y, 102, 66, kind, *stop)
            if i < 3:
                p.arrow(f"M{107 + 136 * i} {y + 33} h32" if title == "Writing" else f"M{141 + 136 * i} {y + 33} h-32")
    p.text(5, 260, "A block of which a part was read is kept: its next row costs a copy.")
    return p


def the_side_file() -> Picture:
    p = Picture("What stands on the disk during an append, and what a crash then leads to", 272)
    steps = [
        ("host", "finished", "old rows"), ("mark", "side file", "keeps the", "old end"),
        ("risk", "blocks,", "index", "over it"), ("index", "heading", "new rows", "count"),
        ("host", "finished", "side file", "gone"),
    ]
    p.text(5, 20, "An append: each step is on the disk before the next begins", "bold")
    p.text(5, 38, f"The side file is NAME{SUFFIX}")
    for i, (kind, *lines) in enumerate(steps):
        p.box(5 + 107 * i, 54, 82, 66, kind, *lines)
        if i < 4:
            p.arrow(f"M{87 + 107 * i} 87 h23")
    p.text(5, 160, "After a crash", "bold")
    p.box(100, 196, 206, 66, "mark", "undone", "the file is, byte for byte,", "what it was")
    p.box(314, 196, 201, 66, "index", "completed", "all new rows stand,", "the side file goes")
    for x, to in [(153, 165), (260, 245), (367, 400)]:
        p.arrow(f"M{x} 122 C {x} 160, {to} 160, {to} 194", "faint")
    return p


if __name__ == "__main__":
    directory = Path(sys.argv[1]) if len(sys.argv) > 1 else here / "pictures"
    directory.mkdir(parents=True, exist_ok=True)
    for name, draw in {"file": the_file, "roads": the_roads, "sideFile": the_side_file}.items():
        draw().save(directory / f"{name}.svg")
