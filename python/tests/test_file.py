"""orva.open as a raw stream of Python's io, and the functions on whole files."""

import gc
import io
import os
import pickle
import signal
import warnings
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from conftest import BLOCK, ROWS

import orva

BYTES = ROWS.tobytes()
TEXT = "".join(f"línea {i}\n" for i in range(50_000))


@pytest.mark.parametrize("opened", ["path", "object"])
@pytest.mark.parametrize("threads", [1, 3])
def test_reads_as_a_plain_file_does(shared: Path, opened: str, threads: int) -> None:
    source: Any = shared / "trades.orva"
    if opened == "object":
        source = open(source, "rb")
    with orva.open(source, threads=threads) as file, io.BytesIO(BYTES) as plain:
        assert file.readable() and file.seekable() and not file.writable() and not file.isatty()
        for step in [
            lambda f: f.read(24),
            lambda f: f.seek(BLOCK - 5) and f.read(10),
            lambda f: (f.seek(-3, os.SEEK_CUR), f.tell(), f.read(3 * BLOCK)),
            lambda f: (f.seek(-7, os.SEEK_END), f.read(), f.read(), f.read(5)),
            lambda f: (f.seek(1 << 60) if f is file else 1 << 60, f.read(2), f.tell() > 9)[1:],
            lambda f: (f.seek(0), f.readinto(to := bytearray(2 * BLOCK)), bytes(to)),
            lambda f: (f.seek(100), f.readline(), f.readall() if f is file else f.read()),
        ]:
            assert step(file) == step(plain)
    assert file.closed


def test_wrappers_read(shared: Path, tmp_path: Path) -> None:
    with orva.open(tmp_path / "text.orva", "xb", threads=2, block=BLOCK) as raw:
        text = io.TextIOWrapper(io.BufferedWriter(raw), encoding="utf-8")
        text.write(TEXT)
        text.flush()
        text.detach().detach()
    with io.TextIOWrapper(io.BufferedReader(orva.open(tmp_path / "text.orva")), encoding="utf-8") as lines:
        assert "".join(lines) == TEXT
        lines.seek(0)
        assert lines.readline() == "línea 0\n"
    buffered = io.BufferedReader(orva.open(shared / "trades.orva"))
    assert b"".join(iter(lambda: buffered.read(21), b"")) == BYTES and buffered.seek(-21, os.SEEK_END)
    assert buffered.read() == BYTES[-21:]


def test_modes(here: Path) -> None:
    for mode, rows in (("ab", b"one"), ("ab", b"onetwo"), ("wb", b"two"), ("ab", b"twotwo")):
        with orva.open("new.orva", mode) as file:  # type: ignore[arg-type]
            assert file.writable() and not file.readable() and not file.seekable()
            assert file.write(rows[-3:]) == 3 and file.tell() == len(rows)
            assert (file.name, file.mode) == ("new.orva", mode)
        assert orva.open("new.orva").read() == rows
        pytest.raises(ValueError, file.write, b"").match("closed file")
    with orva.open("new.orva", "ab") as file:
        assert file.write(ROWS["time"].astype("M8[s]")) == 160_000


def leave(file: orva.File) -> None:
    with file:
        raise KeyError


def interrupt(file: orva.File) -> None:
    def stop(*_: Any) -> None:
        raise TypeError(file.tell())  # not one of which nothing was taken

    rows = bytes(1 << 26)
    signal.signal(signal.SIGALRM, stop)
    signal.setitimer(signal.ITIMER_REAL, 0.001)
    try:
        file.write(rows)
    except TypeError as stopped:
        assert stopped.args[0] < len(rows), "not within a block"
        raise
    finally:
        pytest.raises(ValueError, file.close).match("closed file")


def leave_where_warnings_are_errors(file: orva.File) -> None:
    warnings.simplefilter("error")
    io.BufferedWriter(file).write(b"x" * 9)
    raise KeyError


FAILED = [leave, interrupt, leave_where_warnings_are_errors]
COLLECTED: list[Any] = [
    lambda file: None,
    lambda file: io.BufferedWriter(file).write(b"x" * 9),
    lambda file: io.TextIOWrapper(io.BufferedWriter(file)).write("x"),
]


@pytest.mark.parametrize("mode", ["wb", "ab"])
@pytest.mark.parametrize("end", FAILED + COLLECTED)
def test_what_is_not_closed_never_appears(here: Path, mode: Any, end: Any) -> None:
    before = {name.name: name.read_bytes() for name in here.iterdir()}
    file = orva.open("bytes.orva", mode)
    file.write(BYTES)
    with pytest.raises((KeyError, TypeError)) if end in FAILED else pytest.warns(ResourceWarning, match="abandoned"):
        end(file)
        del file
        gc.collect()
    assert {name.name: name.read_bytes() for name in here.iterdir()} == before


def test_pickles(here: Path) -> None:
    file, rows = orva.open("bytes.orva"), orva.rows("trades.orva", damaged="mask", threads=2)
    file.seek(4)
    of_object = orva.open(io.BytesIO(Path("bytes.orva").read_bytes()))
    error = pickle.loads(pickle.dumps(orva.DamagedFileError("text", "path", 3, 4)))
    assert (str(error), error.path, error.offset, error.block) == ("text", "path", 3, 4)
    os.chdir("/")
    assert pickle.loads(pickle.dumps(file)).read() == b"56789"
    assert pickle.loads(pickle.dumps(of_object)).read() == b"123456789"
    again = pickle.loads(pickle.dumps(rows))
    assert np.ma.isMaskedArray(again[:]) and again.dtype == rows.dtype and np.array_equal(again[:].data, ROWS) and len(pickle.dumps(rows)) < 1_000


def test_whole_files(here: Path) -> None:
    info = orva.info("trades.orva")
    assert (info.size, info.row0, info.found_by, len(info.blocks)) == (len(BYTES), 512, "dictionary", 7)
    told: list[tuple[int, int]] = []

    def progress(done: int, total: int) -> None:
        told.append((done, total))

    assert orva.verify("trades.orva", threads=2, progress=progress).sound and told[-1] == (len(BYTES), len(BYTES))
    report = orva.verify("bad.orva")
    assert not report.sound and [(bad.block, bad.rows.offset) for bad in report.bad] == [(3, 3 * BLOCK)]
    saved = orva.recover("bad.orva", "saved.orva", progress=progress)
    assert saved.blocks == 6 and saved.lost[0].rows.offset == 3 * BLOCK and told[-1][0] == told[-1][1]
    assert (orva.rows("saved.orva")[15_000:] == ROWS[15_000:]).all()
    assert orva.join(["trades.orva"] * 2, "all.orva", progress=progress).size == 2 * len(BYTES)
    assert len(orva.rows("all.orva")) == 2 * len(ROWS)


@pytest.mark.parametrize("work, names", [(orva.verify, ["bad.orva"]), (orva.recover, ["bad.orva", "a"]), (orva.join, [["bad.orva"], "a"])])
def test_progress_stops_the_work(here: Path, work: Any, names: Any) -> None:
    with pytest.raises(ZeroDivisionError):
        work(*names, progress=lambda done, total: done // 0)
    assert not os.path.exists("a")
