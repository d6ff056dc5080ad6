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
from typing import Any

import numpy as np
import pytest
from conftest import ROWS

import orva

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


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize(
    "work",
    [
        lambda name, threads, out: orva.open(name, threads=threads).readinto(out),
        lambda name, threads, out: orva.rows(name, threads=threads)[:],
        lambda name, threads, out: orva.rows(name, threads=threads)[::-7],
        lambda name, threads, out: orva.verify(name, threads=threads),
        lambda name, threads, out: orva.recover(name, name + ".saved"),
        lambda name, threads, out: orva.write(name + ".new", out, threads=threads, level=6),
    ],
    ids=["read", "rows", "every seventh row", "verify", "recover", "write"],
)
def test_signals_act_within_a_block(zeros: str, work: Any, threads: int) -> None:
    out = np.ones(ZEROS, "u1")
    before = signal.signal(signal.SIGALRM, stop)
    try:
        with pytest.raises(Stopped):
            signal.setitimer(signal.ITIMER_REAL, 0.01)
            work(zeros, threads, out)
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)
    assert out[-1] == 1, "nothing was stopped"
    assert os.listdir(os.path.dirname(zeros)) == ["zeros.orva"]


def check_some_rows(rows: orva.Rows, seed: int) -> None:
    numbers = np.random.default_rng(seed).integers(0, len(ROWS), 50)
    assert (rows[numbers] == ROWS[numbers]).all()
    assert (rows[int(numbers[0]) :] == ROWS[numbers[0] :]).all()


@pytest.mark.parametrize("opened", ["path", "object"])
def test_threads_share_rows(shared: Path, opened: str) -> None:
    source: Any = shared / "trades.orva"
    rows = orva.rows(source if opened == "path" else open(source, "rb"), threads=3)
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        list(pool.map(check_some_rows, [rows] * 200, range(200)))


def test_other_threads_run_while_one_reads(zeros: str) -> None:
    turns, ended = 0, threading.Event()

    def count() -> None:
        nonlocal turns
        while not ended.wait(0.001):
            turns += 1

    counter = threading.Thread(target=count)
    counter.start()
    file, out = orva.open(zeros), np.empty(ZEROS, "u1")
    before = turns
    file.readinto(out)
    assert turns - before > 5
    ended.set()
    counter.join()


DAEMONS = """
import sys, threading, time, orva
def read(file):
    while True:
        file.seek(0)
        file.read(1 << 21)
for _ in range(2):
    threading.Thread(target=read, args=(orva.open(sys.argv[1]),), daemon=True).start()
time.sleep(0.1)
"""


def test_daemon_threads_end_with_the_process(zeros: str) -> None:
    assert subprocess.run([sys.executable, "-c", DAEMONS, zeros]).returncode == 0


@pytest.mark.parametrize("opened", ["path", "object", "file"])
def test_a_fork_while_threads_read(shared: Path, opened: str) -> None:
    name = shared / "trades.orva"
    source: Any = {"path": name, "object": io.BytesIO(name.read_bytes()), "file": open(name, "rb")}[opened]
    rows = orva.rows(source, threads=2)
    ended = threading.Event()

    def read() -> None:
        while not ended.is_set():
            check_some_rows(rows, 1)

    with concurrent.futures.ThreadPoolExecutor(3) as pool:
        readers = [pool.submit(read) for _ in range(3)]
        try:
            for seed in range(20):
                if (child := os.fork()) == 0:
                    try:
                        check_some_rows(rows, seed)
                        os._exit(0)
                    finally:
                        os._exit(1)
                assert ends_well(child)
        finally:
            ended.set()
    assert [reader.result() for reader in readers] == [None] * 3


def ends_well(child: int) -> bool:
    """Whether it does so in time; one that hangs may not even have begun to run Python."""
    for _ in range(4_000):
        if (ended := os.waitpid(child, os.WNOHANG))[0] != 0:
            return ended[1] == 0
        time.sleep(0.005)
    os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)
    return False


def test_a_writers_child_writes_nothing(tmp_path: Path) -> None:
    with orva.open(tmp_path / "new.orva", "xb") as file:
        file.write(b"rows")
        if (child := os.fork()) == 0:
            for work in (lambda: file.write(b"more"), file.close):
                try:
                    work()
                    os._exit(1)
                except ValueError:
                    pass
            os._exit(0)
        assert os.waitpid(child, 0)[1] == 0
        file.write(b" of the parent")
    assert orva.open(tmp_path / "new.orva").read() == b"rows of the parent"


def abandon(name: str) -> None:
    try:
        with orva.open(name + ".new", "xb") as file:
            file.write(b"x")
            raise Stopped
    except Stopped:
        pass


def read_damage(name: str) -> None:
    with orva.rows(name.replace("trades", "bad")) as rows, pytest.raises(orva.DamagedFileError):
        rows[10_000]


def read_object(name: str) -> None:
    with open(name, "rb") as plain, orva.rows(plain) as rows:
        rows[0]


def read(name: str) -> None:
    with orva.open(name) as file:
        file.read(1)


def resident() -> int:
    return int(Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@pytest.mark.parametrize("work, times", [(read, 10_000), (read_object, 3_000), (read_damage, 3_000), (abandon, 3_000)])
def test_nothing_is_left_of_many_files(shared: Path, work: Any, times: int) -> None:
    def growth(times: int) -> int:
        before = resident()
        for _ in range(times):
            work(str(shared / "trades.orva"))
        return resident() - before

    growth(times // 10)
    descriptors = os.listdir("/proc/self/fd")
    assert any(growth(times) < 1 << 20 for _ in range(4))  # the allocator takes a piece now and then, a leak grows always
    assert len(os.listdir("/proc/self/fd")) == len(descriptors)
