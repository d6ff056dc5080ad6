"""Threads, forks, signals, and what is left after ten thousand files."""

import concurrent.futures
import io
import os
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Any, Callable

import numpy as np
import pytest
from conftest import ROWS

import orva
import orva.dask

ZEROS = 1 << 28


@pytest.fixture(scope="module")
def zeros(tmp_path_factory: pytest.TempPathFactory) -> str:
    """A file whose reading takes a while."""
    name = str(tmp_path_factory.mktemp("zeros") / "zeros.orva")
    orva.write(name, np.zeros(ZEROS // 8))
    return name


class Stopped(Exception):
    pass


def stop(number: int, frame: Any) -> None:
    raise Stopped


LONG: dict[str, Callable[[str, int, Any], object]] = {
    "read": lambda name, threads, out: orva.open(name, threads=threads).readinto(out),
    "rows": lambda name, threads, out: orva.rows(name, threads=threads)[:],
    "every seventh row": lambda name, threads, out: orva.rows(name, threads=threads)[::-7],
    "verify": lambda name, threads, out: orva.verify(name, threads=threads),
    "recover": lambda name, threads, out: orva.recover(name, name + ".saved"),
    "write": lambda name, threads, out: orva.write(name + ".new", out, threads=threads, level=6),
}


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("work", LONG.values(), ids=LONG)
def test_signals_act_within_a_block(zeros: str, work: Any, threads: int) -> None:
    out = np.ones(ZEROS, "u1")
    signal.signal(signal.SIGALRM, stop)
    with pytest.raises(Stopped):
        signal.setitimer(signal.ITIMER_REAL, 0.01)
        work(zeros, threads, out)
    assert out[-1] == 1, "nothing was stopped"
    assert os.listdir(os.path.dirname(zeros)) == ["zeros.orva"]


def test_other_threads_run_while_one_reads(zeros: str) -> None:
    reader, turns = threading.Thread(target=orva.open(zeros).read), 0
    reader.start()
    while reader.is_alive():
        time.sleep(0.001)
        turns += 1
    assert turns > 5


DAEMONS = """
import sys, threading, time, orva
def read(file):
    while file.seek(0) == 0:
        file.read(1 << 21)
for _ in range(2):
    threading.Thread(target=read, args=(orva.open(sys.argv[1]),), daemon=True).start()
time.sleep(0.1)
"""


def test_daemon_threads_end_with_the_process(zeros: str) -> None:
    assert subprocess.run([sys.executable, "-c", DAEMONS, zeros]).returncode == 0


def ends_well_in_a_child(work: Callable[[], object]) -> bool:
    """And in time: a child that hangs may not even have begun to run Python."""
    if (child := os.fork()) == 0:
        try:
            work()
            os._exit(0)
        finally:
            os._exit(1)
    for _ in range(4_000):
        if (ended := os.waitpid(child, os.WNOHANG))[0] != 0:
            return ended[1] == 0
        time.sleep(0.005)
    os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)
    return False


class Slow(io.BytesIO):
    def readinto(self, to: Any) -> int:
        time.sleep(0)  # lets other threads in, between seek and this
        return super().readinto(to)


@pytest.mark.parametrize("opened", [lambda name: name, lambda name: Slow(name.read_bytes()), lambda name: open(name, "rb")])
def test_a_fork_while_threads_read(shared: Path, opened: Any) -> None:
    source = opened(shared / "trades.orva")
    both = [orva.rows(source, threads=2) for _ in range(2)]
    ended = threading.Event()

    def check(seed: int) -> None:
        rows = both[seed % 2]
        numbers = np.random.default_rng(seed).integers(0, len(ROWS), 50)
        assert (rows[numbers] == ROWS[numbers]).all()
        assert (rows[int(numbers[0]) :] == ROWS[numbers[0] :]).all()

    def read(seed: int) -> None:
        while not ended.is_set():
            check(seed)

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        readers = [pool.submit(read, seed) for seed in range(8)]
        try:
            assert all(ends_well_in_a_child(lambda: check(seed)) for seed in range(20))
        finally:
            ended.set()
    assert [reader.result() for reader in readers] == [None] * 8


def test_a_fork_while_a_task_opens_its_file(shared: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    array, kept = orva.dask.from_rows(shared / "trades.orva"), orva.dask._kept

    def opened(file: Any) -> orva.Rows:
        monkeypatch.undo()
        assert ends_well_in_a_child(lambda: array.compute(scheduler="sync"))
        return kept(file)

    monkeypatch.setattr(orva.dask, "_kept", opened)
    assert np.array_equal(array.compute(scheduler="sync"), ROWS)


def test_a_writers_child_writes_nothing(tmp_path: Path) -> None:
    with orva.open(tmp_path / "new.orva", "xb") as file:
        file.write(b"rows")
        for work in (lambda: file.write(b"more"), file.close):
            assert ends_well_in_a_child(lambda: pytest.raises(ValueError, work))
        file.write(b" of the parent")
    assert orva.open(tmp_path / "new.orva").read() == b"rows of the parent"


def abandon(home: Path) -> None:
    with pytest.raises(Stopped), orva.open(home / "new.orva", "xb") as file:
        file.write(b"x")
        raise Stopped


MANY: list[tuple[int, Callable[[Path], object]]] = [
    (10_000, lambda home: orva.open(home / "trades.orva").read(1)),
    (3_000, lambda home: orva.rows(io.FileIO(home / "trades.orva"))[0]),
    (3_000, lambda home: pytest.raises(orva.DamagedFileError, lambda: orva.rows(home / "bad.orva")[10_000])),
    (3_000, abandon),
]


@pytest.mark.parametrize("times, work", MANY)
@pytest.mark.filterwarnings("ignore::ResourceWarning")
def test_nothing_is_left_of_many_files(shared: Path, times: int, work: Any) -> None:
    def growth(times: int) -> int:
        before = int(Path("/proc/self/statm").read_text().split()[1])
        for _ in range(times):
            work(shared)
        return (int(Path("/proc/self/statm").read_text().split()[1]) - before) * os.sysconf("SC_PAGE_SIZE")

    growth(times // 10)
    descriptors = os.listdir("/proc/self/fd")
    assert any(growth(times) < 1 << 20 for _ in range(4))  # the allocator takes a piece now and then, a leak grows always
    assert len(os.listdir("/proc/self/fd")) <= len(descriptors)  # other tests may have left some that go meanwhile
