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

# The public headers in the order in which a reader needs them, below Datasource/src or host.
HEADERS = {
    "Rows": """
        api/reader.h api/rows.h api/writer.h api/iostream.h api/files.h api/error.h api/dictionaryText.h api/pendingFile.h
        api/version.h
    """,
    "Streams and files": """
        part/zcmpsFilestr.h stream/filestr.h file/file.h recovery/inspect.h recovery/join.h part/sideFile.h base/errors.h
        format/compressedLayout.h base/blockSize.h base/refCntObject.h sortTemp/zlibCompress.h sortTemp/lz4Compress.h
    """,
    "What a host may replace": "errtext.h hostdep.h ktthread.h platform.h workdir.h",
}


def source_of(header: str) -> Path:
    return top / ("Datasource/src" if "/" in header else "host") / header


def page_of(header: Path) -> tuple[str, str]:
    """A header is written to be read: its first comment as text, with the example in it as code, then the header. And
    its first sentence."""
    lines = header.read_text().splitlines()
    first = lines.index("#pragma once")
    text = "\n".join(line.removeprefix("//").removeprefix(" ") for line in lines[:first] if line.startswith("//"))
    code = "\n".join(lines[first + 1 :]).strip()
    page = f"# {header.name}\n\n```text\n{text}\n```\n\n```cpp\n#include <orva/{header.name}>\n```\n\n```cpp\n{code}\n```\n"
    return "---\nhide-toc: true\n---\n" + page, re.split(r"\.\s|\.$|\n\n", text)[0].replace("\n", " ")


def command_page() -> str:
    """The manual's page, a heading for each of its sections, so that they show in the page's contents."""
    manual = subprocess.run(
        ["mandoc", "-T", "html", "-O", "fragment", here / "orva.1"], check=True, capture_output=True, text=True
    ).stdout
    body = manual[manual.index('<section class="Sh">') : manual.rindex("</div>")]
    body = re.sub(r"</?(section|a)\b[^>]*>", "", body)
    page = ""
    for part in re.split(r"(?=<h[12] class=\"S[hs]\")", body):
        if heading := re.match(r'<h([12]) class="S[hs]"[^>]*>(.*?)</h[12]>', part, re.DOTALL):
            title = heading[2].replace("\n", " ")
            page += f"\n{'#' * (int(heading[1]) + 1)} {title.capitalize() if heading[1] == '1' else title}\n"
            if text := part[heading.end() :].strip():
                page += f"\n```{{raw}} html\n{text}\n```\n"
    return page


def make_pages(app: object) -> None:
    made = here / "_made"
    made.mkdir(exist_ok=True)
    (made / "orva.1.inc").write_text(command_page())
    for group, headers in HEADERS.items():
        tree = f"```{{toctree}}\n:hidden:\n:caption: {group}\n"
        table = ""
        for header in headers.split():
            source = source_of(header)
            page, sentence = page_of(source)
            (made / f"{source.stem}.md").write_text(page)
            tree += f"_made/{source.stem}\n"
            table += f"- [{source.name}](_made/{source.stem}.md): {sentence.removeprefix(source.stem + ': ')}\n"
        (made / f"{group.split()[0]}.inc").write_text(f"{table}\n{tree}```\n")


def link_headers(app: object, name: str, text: list[str]) -> None:
    """Links to headers, and to what stands above docs, lead to their pages."""
    text[0] = text[0].replace("](../SECURITY.md)", "](security.md)")
    for header in " ".join(HEADERS.values()).split():
        source = source_of(header)
        text[0] = text[0].replace(f"](../{source.relative_to(top)})", f"](_made/{source.stem}.md)")


def setup(app: object) -> None:
    app.connect("builder-inited", make_pages)  # type: ignore[attr-defined]
    app.connect("source-read", link_headers)  # type: ignore[attr-defined]
