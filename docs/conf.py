"""The site of these pages, by scripts/docs: Sphinx over Markdown. What is made from other files is made at each build."""

import re
import subprocess
from pathlib import Path

here = Path(__file__).parent
top = here.parent

project = "orva"
author = copyright = "the orva authors"
version = release = re.search(r"project\(orva VERSION ([\d.]+)", (top / "CMakeLists.txt").read_text()).group(1)

extensions = ["myst_parser"]
myst_heading_anchors = 3
html_theme = "furo"
html_title = f"orva {release}"
html_static_path = ["_static"]
html_css_files = ["orva.css"]
html_copy_source = False
html_show_sphinx = False

# The public headers in the order in which a reader needs them.
HEADERS = """
    api/reader.h api/rows.h api/writer.h api/iostream.h api/files.h api/error.h api/dictionaryText.h api/pendingFile.h
    api/version.h part/zcmpsFilestr.h stream/filestr.h file/file.h recovery/inspect.h recovery/join.h part/sideFile.h base/errors.h
    format/compressedLayout.h sortTemp/zlibCompress.h sortTemp/lz4Compress.h
""".split()


def page_of(header: Path) -> str:
    """A header is written to be read: its first comment as text, with the example in it as code, then the header."""
    lines = header.read_text().splitlines()
    first = lines.index("#pragma once")
    title, *rest = [line.removeprefix("//").removeprefix(" ") for line in lines[:first] if line.startswith("//")]
    text = "\n".join([title, *rest])
    code = "\n".join(lines[first + 1 :]).strip()
    return f"# {header.name}\n\n```text\n{text}\n```\n\n```cpp\n#include <orva/{header.name}>\n```\n\n```cpp\n{code}\n```\n"


def make_pages(app: object) -> None:
    made = here / "_made"
    made.mkdir(exist_ok=True)
    manual = subprocess.run(
        ["mandoc", "-T", "html", "-O", "fragment", here / "orva.1"], check=True, capture_output=True, text=True
    ).stdout
    body = manual[manual.index("<div class=") : manual.index('<table class="foot"')]
    heading = re.compile(r'<h1 class="Sh" id="([^"]*)"><a[^>]*>([^<]*)</a></h1>')
    (made / "orva.1.html").write_text(heading.sub(lambda h: f'<h2 id="{h[1]}">{h[2].capitalize()}</h2>', body))
    for header in HEADERS:
        source = top / "Datasource/src" / header
        (made / f"{source.stem}.md").write_text(page_of(source))


def setup(app: object) -> None:
    app.connect("builder-inited", make_pages)  # type: ignore[attr-defined]
