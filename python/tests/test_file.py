# orva.open as a raw stream of Python's io, the functions on whole files, and processes: threads, forks, signals, leaks.

import concurrent.futures
import io
import multiprocessing
import os
import pickle
import signal
import subprocess
import sys
import types
import warnings
from pathlib import Path
from typing import Any, Callable

import fsspec
import numpy as np
import pytest
from conftest import BLOCK, BYTES, ROWS, Slow

import orva.dask

STEPS: list[Any] = [
    lambda file: (file.read(BLOCK), file.seek(-3, os.SEEK_CUR), file.tell(), file.read(3 * BLOCK)),
    lambda file: (file.seek(-7, os.SEEK_END), file.read(), file.read(), file.read(5)),
    lambda file: (file.seek(1 << 40), file.read(2), file.tell()),
    lambda file: (file.seek(0), file.readinto(to := bytearray(2 * BLOCK)), bytes(to)),
    lambda file: (file.seek(100), file.readline(), file.readall()),
    lambda file: (file.readable(), file.seekable(), file.writable(), file.isatty()),
]


# The minimal interface of a file, such as one in an archive.
def bare(path: Path) -> Any:
    file = io.BytesIO(path.read_bytes())
    return types.SimpleNamespace(seek=file.seek, tell=file.tell, read=file.read, name="\ud800")


@pytest.mark.parametrize("opened", [str, lambda path: open(path, "rb"), bare])
@pytest.mark.parametrize("threads", [1, 3])
def test_reads_as_a_plain_file_does(shared: Path, tmp_path: Path, opened: Any, threads: int) -> None:
    (tmp_path / "plain").write_bytes(BYTES)
    with orva.open(opened(shared / "trades.orva"), threads=threads) as file, io.FileIO(tmp_path / "plain") as plain:
        for step in STEPS:
            assert step(file) == step(plain)


def test_modes(here: Path) -> None:
    for mode, rows in (("ab", b"one"), ("ab", b"onetwo"), ("wb", b"two"), ("ab", b"twotwo")):
        with orva.open("new.orva", mode) as file:  # type: ignore[arg-type]
            assert file.writable() and not file.readable() and not file.seekable()
            assert file.write(rows[-3:]) == 3 and (file.tell(), file.name, file.mode) == (len(rows), "new.orva", mode)
        assert orva.open("new.orva").read() == rows
    with orva.open("times.orva", "xb", threads=2) as file:
        assert file.write(np.zeros(3, "M8[s]")) == 24


def leave(file: orva.File) -> None:
    with file:
        raise KeyError


def leave_where_warnings_are_errors(file: orva.File) -> None:
    warnings.simplefilter("error", ResourceWarning)
    io.BufferedWriter(file).write(b"x")
    raise KeyError


def interrupt(file: orva.File) -> None:
    rows, taken = bytes(1 << 26), []
    # A TypeError after some bytes were taken.
    signal.signal(signal.SIGALRM, lambda *_: taken.append(file.tell()) or file.tell("now"))
    signal.setitimer(signal.ITIMER_REAL, 0.001)
    stopped = pytest.raises(TypeError, file.write, rows)
    assert taken[0] < len(rows), "not within a block"
    pytest.raises(ValueError, file.close).match("closed file")
    raise stopped.value


COLLECTED: list[Any] = [lambda file: None, lambda file: io.TextIOWrapper(io.BufferedWriter(file)).write("x")]


@pytest.mark.parametrize("mode", ["wb", "ab"])
@pytest.mark.parametrize("end", [leave, leave_where_warnings_are_errors, interrupt, *COLLECTED])
def test_what_is_not_closed_never_appears(here: Path, mode: Any, end: Any) -> None:
    before = {name.name: name.read_bytes() for name in here.iterdir()}
    file = orva.open("bytes.orva", mode)
    file.write(BYTES)
    with pytest.warns(ResourceWarning, match="abandoned") if end in COLLECTED else pytest.raises((KeyError, TypeError)):
        end(file)
        del file
    assert {name.name: name.read_bytes() for name in here.iterdir()} == before


def test_pickles(here: Path) -> None:
    file, rows = orva.open("bytes.orva"), orva.rows("trades.orva", damaged="mask", threads=2)
    file.seek(4)
    of_object = orva.open(io.BytesIO(Path("bytes.orva").read_bytes()))
    error = pickle.loads(pickle.dumps(orva.DamagedFileError("text", "path", 3, 4)))
    assert (str(error), error.path, error.offset, error.block) == ("text", "path", 3, 4)
    os.chdir("/")
    with fsspec.open(f"orva::{here}/bytes.orva") as engines:
        assert engines.read(4) == b"1234"
        assert [pickle.loads(pickle.dumps(each)).read() for each in (file, of_object, engines)] == [b"56789", b"123456789", b"56789"]
    again = pickle.loads(pickle.dumps(rows))[:]
    assert np.ma.isMaskedArray(again) and np.array_equal(again.data, ROWS) and len(pickle.dumps(rows)) < 1_000


def test_whole_files(here: Path) -> None:
    info = orva.info("trades.orva")
    assert (info.size, info.row0, info.found_by, len(info.blocks)) == (len(BYTES), 512, "dictionary", 7)
    told: list[Any] = []
    assert orva.verify("zeros.orva", threads=2, progress=lambda *pair: told.append(pair)).sound
    assert told[0][0] < told[0][1] == 1 << 28 and told[-1] == (1 << 28, 1 << 28)
    report = orva.verify("bad.orva")
    assert not report.sound and [(bad.block, bad.rows.offset) for bad in report.bad] == [(3, 3 * BLOCK)]
    saved = orva.recover("bad.orva", "saved.orva")
    assert saved.blocks == 6 and saved.size == len(BYTES) - BLOCK and saved.lost[0].rows.offset == 3 * BLOCK
    assert orva.join(["trades.orva"] * 2, "all.orva").size == 2 * len(BYTES) == orva.rows("all.orva").nbytes


def test_append_knows_a_dtype_where_rows_does(here: Path) -> None:
    orva._orva.create(b"theirs.orva", b'orva dictionary 1 row0=0000000050\ndtype="<i8"\n    ', 1, True, 1, 0).finish()
    orva.append("theirs.orva", ROWS)
    assert (orva.rows("theirs.orva", ROWS.dtype)[:] == ROWS).all()


def test_of_two_parts_row0_names_one(here: Path) -> None:
    first = Path("numbers.orva").read_bytes().ljust(1024)
    orva._orva.create(b"two.orva", first, 1, False, 1, 0).finish()
    orva.append("two.orva", ROWS, row0=1024)
    orva.join(["two.orva"], "again.orva", row0=1024)
    assert (orva.rows("again.orva", ROWS.dtype, row0=1024)[:] == ROWS).all()
    pytest.raises(ValueError, orva.rows, "again.orva", row0=1024).match("state the dtype")


LONG: dict[str, Callable[[str, int, Any], object]] = {
    "read": lambda name, threads, out: orva.open(name, threads=threads).readinto(out),
    "verify": lambda name, threads, out: orva.verify(name, threads=threads),
    "search for a heading, in vain": lambda name, threads, out: orva.open("foreign"),
    "write": lambda name, threads, out: orva.write("new.orva", out, threads=threads, level=6),
}


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("work", LONG.values(), ids=LONG)
def test_signals_act_within_a_block(here: Path, work: Any, threads: int) -> None:
    out = np.ones(1 << 28, "u1")
    out[: 1 << 27].tofile("foreign")
    before = sorted(os.listdir())
    signal.signal(signal.SIGALRM, lambda *_: 1 // 0)
    with pytest.raises(ZeroDivisionError):
        signal.setitimer(signal.ITIMER_REAL, 0.01)
        work("zeros.orva", threads, out)
    assert out[-1] == 1 and sorted(os.listdir()) == before


DAEMONS = """
import sys, threading, time, orva
for _ in range(2):
    threading.Thread(target=list, args=[orva.rows(sys.argv[1]).iter_chunks(10_000)], daemon=True).start()
time.sleep(0.1)
"""


SUB_INTERPRETER = """
from _testcapi import run_in_subinterp
assert run_in_subinterp("try: import orva\\nexcept ImportError as error: assert 'main interpreter' in str(error)\\nelse: 1 / 0") == 0
"""


@pytest.mark.parametrize("program", [DAEMONS, SUB_INTERPRETER], ids=["daemon threads", "a sub-interpreter"])
def test_a_process_ends(here: Path, program: str) -> None:
    assert subprocess.run([sys.executable, "-c", program, "zeros.orva"], timeout=20).returncode == 0


def ends_well_in_a_child(work: Callable[[], object]) -> bool:
    child = multiprocessing.get_context("fork").Process(target=work)
    child.start()
    child.join(20)
    child.kill()  # a hanging child may not even have begun to run Python
    child.join()
    return child.exitcode == 0


@pytest.mark.parametrize("opened", [str, lambda name: Slow(name.read_bytes()), lambda name: open(name, "rb")])
def test_a_fork_while_threads_read(shared: Path, opened: Any) -> None:
    both = [orva.rows(source, threads=2) for source in [opened(shared / "trades.orva")] * 2]

    def check(seed: int) -> None:
        rows, numbers = both[seed % 2], np.random.default_rng(seed).integers(0, len(ROWS), 50)
        assert (rows[numbers] == ROWS[numbers]).all()
        assert (rows[int(numbers[0]) :] == ROWS[numbers[0] :]).all()

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        checks = [pool.submit(check, seed) for seed in range(10_000)]  # more than the children need
        well = all(ends_well_in_a_child(lambda: check(seed)) for seed in range(20))
        assert not checks[-1].done()
        pool.shutdown(cancel_futures=True)
    assert well and not any(done.exception() for done in checks if not done.cancelled())


def test_a_fork_while_a_task_opens_its_file(shared: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    array, kept = orva.dask.from_rows(shared / "trades.orva"), orva.dask._kept

    def opened(file: Any) -> orva.Rows:
        monkeypatch.undo()
        assert ends_well_in_a_child(lambda: array.compute(scheduler="sync"))
        return kept(file)

    monkeypatch.setattr(orva.dask, "_kept", opened)
    assert np.array_equal(array.compute(scheduler="sync"), ROWS)


def test_a_writer_tells_of_whole_writes_to_other_threads(tmp_path: Path) -> None:
    rows = bytes(1 << 27)
    with orva.open(tmp_path / "new.orva", "wb") as file, concurrent.futures.ThreadPoolExecutor(1) as pool:
        writing = pool.submit(file.write, rows)
        seen = {file.tell() for _ in iter(writing.done, True)}
    assert seen <= {0, len(rows)}


MANY: list[tuple[int, Callable[[Path], object]]] = [
    (10_000, lambda home: orva.open(home / "trades.orva").read(1)),
    (3_000, lambda home: pytest.raises(orva.DamagedFileError, lambda: orva.rows(home / "bad.orva")[10_000])),
    (3_000, lambda home: orva.open(home / "new.orva", "xb").write(b"x")),
    (3_000, lambda home: setattr(source := Slow((home / "numbers.orva").read_bytes()), "rows", orva.rows(source))),
]


@pytest.mark.parametrize("times, work", MANY)
@pytest.mark.filterwarnings("ignore::ResourceWarning")
def test_nothing_is_left_of_many_files(shared: Path, times: int, work: Any) -> None:
    def pages(times: int) -> int:
        for _ in range(times):
            work(shared)
        return int(Path("/proc/self/statm").read_text().split()[1])

    pages(times // 10)
    descriptors = os.listdir("/proc/self/fd")
    assert any(pages(0) + 256 > pages(times) for _ in range(4))  # the allocator takes memory now and then, a leak
                                                                 # always grows
    assert len(os.listdir("/proc/self/fd")) <= len(descriptors)  # other tests may have left some that are closed
                                                                 # meanwhile
