"""Runs the code of pages as a reader would: docs/run_blocks.py PAGE...

Each page gets a fresh directory, and its blocks run in their order:
  console  the lines behind `$ ` in one bash; what stands below each is what it prints, `...` any lines
  cpp      a program if it has a main: compiled, run, and the block `text` right behind it is what it prints
  python   one after the other in one interpreter; one that begins with `# NAME.py` is that file, for lines behind it
  r        a program, where R is installed
Others are there to be read. Needs orva on PATH, the module on PYTHONPATH, and pkg-config to find the library.
Exit code: 0 all as shown; 1 something differs.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

NAMED = re.compile(r"# (\w+\.py)\n")
LIMIT = 120  # seconds that one block may take


def run(command: list[str], directory: str, text: str = "") -> str:
    done = subprocess.run(
        command, cwd=directory, input=text, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=LIMIT
    )
    return done.stdout if done.returncode == 0 else f"{done.stdout}exit code {done.returncode}\n"


def differs(shown: str, said: str) -> bool:
    pattern = re.escape(shown.strip()).replace(re.escape("..."), ".*")
    return re.fullmatch(pattern, said.strip(), re.DOTALL) is None


def console(block: str, directory: str) -> list[tuple[str, str]]:
    """What is shown and what was said, a command each; they share one shell, so its variables too."""
    steps = [step.split("\n", 1) for step in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]]
    mark = "-- end of a command --"
    after = f"said() {{ local code=$?; [ $code = 0 ] || echo exit code $code; echo '{mark}'; }}\n"
    said = run(["bash"], directory, after + "".join(f"{step[0]}\nsaid\n" for step in steps)).split(f"{mark}\n")
    return [(step[1] if len(step) > 1 else "", found) for step, found in zip(steps, said[:-1], strict=True)]


def program(block: str, directory: str) -> str:
    (Path(directory) / "program.cpp").write_text(block)
    flags = run(["pkg-config", "--cflags", "--libs", "orva"], directory).split()
    libraries = run(["pkg-config", "--variable=libdir", "orva"], directory).strip()
    said = run(["g++", "-std=c++20", "program.cpp", "-o", "program", *flags, f"-Wl,-rpath,{libraries}"], directory)
    return said or run(["./program"], directory)


def failures(page: Path) -> list[str]:
    blocks = re.findall(r"^```(\w+)\n(.*?)^```$", page.read_text(), re.MULTILINE | re.DOTALL)
    with tempfile.TemporaryDirectory() as directory:
        pairs = []
        for (language, block), (follower, shown) in zip(blocks, [*blocks[1:], ("", "")]):
            if named := NAMED.match(block):
                (Path(directory) / named[1]).write_text(block)
            elif language == "r" and shutil.which("Rscript"):
                pairs.append((shown if follower == "text" else "", run(["Rscript", "-"], directory, block)))
            elif language == "console":
                pairs += console(block, directory)
            elif language == "cpp" and "int main(" in block:
                pairs.append((shown if follower == "text" else "", program(block, directory)))
        code = "".join(block for language, block in blocks if language == "python" and not NAMED.match(block))
        if code:
            pairs.append(("", run([sys.executable, "-c", code], directory)))
        wrong = [f"{page}: shown:\n{shown}said:\n{said}" for shown, said in pairs if differs(shown, said)]
    print(f"{page}: {len(pairs)} ran, {len(wrong)} differ")
    return wrong


if __name__ == "__main__":
    os.environ["LC_ALL"] = "C.UTF-8"
    found = [failure for page in sys.argv[1:] for failure in failures(Path(page))]
    print("\n".join(found), end="")
    sys.exit(1 if found else 0)
