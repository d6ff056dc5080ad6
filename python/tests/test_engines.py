# orva:// over file systems of three kinds: local, with ranged reads of their own, and with buffered files only; and
# orva.dask on Dask's own threads. The example covers many processes.

import contextlib
import functools
import http.server
import io
import pickle
import subprocess
import threading
import time
from pathlib import Path
from typing import Any

import dask.array as da
import dask.dataframe as dd
import fsspec
import numpy as np
import pandas as pd
import pytest
from conftest import BLOCK, ROWS
from fsspec.implementations.local import LocalFileSystem
from fsspec.implementations.memory import MemoryFileSystem
from fsspec.spec import AbstractBufferedFile, AbstractFileSystem

import orva.dask

CSV = pd.DataFrame({"n": np.arange(40_000), "x": np.random.default_rng(1).normal(size=40_000)}).to_csv(index=False).encode()
FRAME = pd.read_csv(io.BytesIO(CSV))
LONG = 2 * BLOCK
BLOCKS = -(-len(CSV) // LONG)
READS: list[Any] = []  # reads of files of rows


# A file system of buffered files. All reads must be on one thread at a time, as over the connection of FTP.
class Buffered(AbstractFileSystem):
    protocol = "buffered"
    ls, info = LocalFileSystem.ls, LocalFileSystem.info

    def __init__(self, **kwargs: Any) -> None:
        super().__init__(**kwargs)
        self.at_work = threading.Lock()

    def cat_file(self, path: str, start: Any = None, end: Any = None, **kwargs: Any) -> bytes:
        assert self.at_work.acquire(timeout=0)
        time.sleep(0.001)
        self.at_work.release()
        return Path(path).read_bytes()[start:end]

    def _open(self, path: str, mode: str = "rb", **kwargs: Any) -> Any:
        file = AbstractBufferedFile(self, path, mode)
        file._fetch_range = lambda start, end: READS.append((start, end)) or file.fs.cat_file(path, start, end)
        return file


fsspec.register_implementation("buffered", Buffered, clobber=True)


# A file system with ranges, as stores give them; under /whole/ without, under /short/ with too few bytes, under /ends/
# with too few bytes of checksums.
class Server(http.server.SimpleHTTPRequestHandler):
    def do_GET(self) -> None:
        wanted = self.headers["Range"]
        if self.path.endswith(".orva"):
            READS.append(wanted)
        if wanted is None or self.path.startswith("/whole"):
            return super().do_GET()
        begin, last = map(int, wanted.removeprefix("bytes=").split("-"))
        self.send_response(206)
        self.end_headers()
        short = self.path.startswith("/short") or (self.path.startswith("/ends") and last - begin == 3)
        self.wfile.write(Path(self.translate_path(self.path)).read_bytes()[begin : last + (not short)])


# The name of the same directory in each file system.
@pytest.fixture(scope="module")
def homes(tmp_path_factory: pytest.TempPathFactory) -> Any:
    path = tmp_path_factory.mktemp("csv")
    for name in "ab":
        orva.write(path / f"{name}.csv.orva", np.frombuffer(CSV, "u1"), block=LONG)
    (path / "c.orva").write_text("no rows")
    for name in "whole", "short", "ends":
        (path.parent / name).symlink_to(path)
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Server, directory=str(path.parent))) as server:
        threading.Thread(target=server.serve_forever).start()
        yield {"file": str(path), "buffered": str(path), "http": f"http://127.0.0.1:{server.server_port}/{path.name}"}
        server.shutdown()


PROTOCOLS = pytest.mark.parametrize("protocol", ["file", "http", "buffered"])


@PROTOCOLS
def test_engines_split_a_compressed_csv(protocol: str, homes: dict[str, str]) -> None:
    home, options = homes[protocol], {"target_protocol": protocol}
    chained = home if protocol == "http" else f"{protocol}://{home}"
    assert pd.read_csv(f"orva://{home}/a.csv.orva", storage_options=options).equals(FRAME)
    assert pd.read_csv(f"orva://::{chained}/a.csv.orva").equals(FRAME)
    one = dd.read_csv(f"orva::{chained}/a.csv.orva", blocksize=200_000)
    many = dd.read_csv(f"orva://{home}/*[ab].csv.orva", blocksize=200_000, storage_options=options)
    assert many.npartitions == 2 * one.npartitions and one.npartitions >= 4
    assert one.compute().reset_index(drop=True).equals(FRAME)
    assert many.compute().reset_index(drop=True).equals(pd.concat([FRAME, FRAME], ignore_index=True))
    assert None not in READS, "a file was fetched whole"


@PROTOCOLS
def test_paths_are_the_targets_and_sizes_are_of_rows(protocol: str, homes: dict[str, str]) -> None:
    home, a = homes[protocol], f"{homes[protocol]}/a.csv.orva"
    single = pickle.loads(pickle.dumps(fsspec.filesystem("orva", fo=a, target_protocol=protocol)))
    fs = fsspec.filesystem("orva", target_protocol=protocol)
    for one, path in (single, ""), (fs, f"orva://{a}"):
        READS.clear()
        assert one.isfile(path) and one.exists(path) and not one.isdir(path) and READS == []
        assert one.info(path)["size"] == len(CSV) and one.ukey(path) == fsspec.filesystem(protocol).ukey(a)
    assert single.ls("", detail=False) == [""] and single.tail("", 7) == CSV[-7:]
    assert fs.isdir(home) == (protocol != "http") and not (fs.isdir(f"{home}/none") or fs.exists(f"{home}/none"))
    READS.clear()
    assert {entry["size"] for entry in fs.ls(home)} == {None}  # one of them has no rows
    assert sorted(fs.glob(f"{home}/*[ab].csv.*")) == [a, f"{home}/b.csv.orva"] and READS == []
    with single.open("") as file:
        opened = len(READS)
        assert file.read() == CSV and opened <= 3 and len(READS) <= opened + BLOCKS
        READS.clear()
        for at in LONG // 4, LONG * 5 + 9, LONG // 4, LONG * 5 + 9:  # as an engine looks for the ends of its share
            file.seek(at)
            assert file.read(LONG // 4) == CSV[at : at + LONG // 4] and len(READS) <= 2


def test_partitions_over_a_store(homes: dict[str, str], tmp_path: Path) -> None:
    READS.clear()
    ranged = f"{homes['http']}/a.csv.orva"
    rows: Any = orva.dask.from_rows(ranged, "u1", partition_bytes=LONG)
    opened = len(READS)
    assert opened <= 3 + BLOCKS and rows.compute(num_workers=8).tobytes() == CSV
    assert len(READS) <= 2 * opened + BLOCKS, "not every thread opens it"
    assert orva.dask.from_rows([ranged, ranged.replace("/a.", "/b."), ranged], "u1").compute().tobytes() == 3 * CSV
    rows = orva.dask.from_rows([f"buffered://{homes['buffered']}/{n}.csv.orva" for n in "ab"], "u1", partition_bytes=LONG)
    for scheduler in "sync", "threads":  # with the files that one thread has opened
        assert rows.compute(scheduler=scheduler, num_workers=8).tobytes() == 2 * CSV
    READS.clear()
    cached = {"simplecache": {"cache_storage": str(tmp_path)}}
    whole = ranged.replace("/csv0/", "/whole/")
    for url in ranged.replace("/a.", "/b."), whole:
        assert fsspec.open(f"orva::simplecache::{url}", **cached).open().read() == CSV
        assert orva.dask.from_rows(f"simplecache::{url}", "u1", storage_options=cached).compute().tobytes() == CSV
    assert READS == [None, None]
    for wrong in whole, ranged.replace("/csv0/", "/short/"), ranged.replace("/csv0/", "/ends/"):
        pytest.raises(OSError, orva.dask.from_rows, wrong, "u1").match("bytes for a range.*simplecache::")
    for no_rows in ranged.replace("/a.csv.", "/c."), f"buffered://{homes['buffered']}/c.orva":
        pytest.raises(orva.DamagedFileError, orva.dask.from_rows, no_rows).match('/c.orva": does not say')


write = functools.partial(orva.write, block=BLOCK)
RANDOM = np.random.default_rng(2).integers(0, 1 << 63, 100_000)  # every block takes the same number of bytes, whatever
                                                                 # is in it
LONGER = np.ones(3, (np.void, 100_000))  # longer than a block
MATRICES = np.arange(120_000, dtype=np.float32).reshape(-1, 4, 3)
# The old rows of a file, what happens to it, with which rows, and whether partitions still hold.
CHANGES: dict[str, tuple[Any, Any, Any, bool]] = {
    "rows added": (ROWS, orva.append, ROWS, True),
    "rows added to one block": (RANDOM[:9], orva.append, RANDOM[:9], True),
    "rows added to none": (RANDOM[:0], orva.append, RANDOM, True),
    "nothing added": (LONGER, orva.append, LONGER[:0], True),
    "written again": (MATRICES, write, MATRICES, True),
    "one row": (RANDOM, write, [*RANDOM[:50_000], 1, *RANDOM[50_001:]], False),
    "the last row": (RANDOM, write, [*RANDOM[:-1], 1], False),
    "the last row, and one more": (RANDOM, write, [*RANDOM[:-1], 1, 1], False),
    "fewer rows": (RANDOM, write, RANDOM[:-1], False),
    "other blocks": (RANDOM, orva.write, RANDOM, False),
}


@pytest.mark.parametrize(("rows", "change", "by", "same"), CHANGES.values(), ids=CHANGES)
@pytest.mark.parametrize(("store", "size"), [("", 1), ("", 100_000), ("memory://", 1 << 30), ("memory://", BLOCK)])
def test_partitions_stay_as_they_were(tmp_path: Path, store: str, size: int, rows: Any, change: Any, by: Any, same: bool) -> None:
    path = str(tmp_path / "a")
    write(path, rows)
    MemoryFileSystem().put(path, path)
    others = MemoryFileSystem().open(path)
    others.seek(3)
    array: Any = orva.dask.from_rows(store + path, partition_bytes=size)
    assert others.tell() == 3
    most = min(len(orva.info(path).blocks), len(rows), round(rows.nbytes / size))
    assert len(array.chunks[0]) == max(most, 1) and array.dtype == rows.dtype
    assert max(len(pickle.dumps(task)) for task in dict(array.dask).values()) < 1_000
    change(path, by)
    MemoryFileSystem().put(path, path)
    changed = pytest.raises(orva.FileChangedError, match=f'"{store}{path}" no longer has the rows that its partitions were made of')
    with contextlib.nullcontext() if same else changed:
        assert np.array_equal(array.compute(), rows)


def test_frames_number_rows_and_read_the_columns_that_are_wanted(tmp_path: Path) -> None:
    rows = np.array([(n, n / 7) for n in range(20_000)], [("time", "<i8"), ("price", "<f8")])
    write(tmp_path / "a", rows)
    frame: Any = orva.dask.from_rows([tmp_path / "a"] * 2, frame=True, partition_bytes=BLOCK)
    both = pd.DataFrame(np.concatenate([rows, rows]))
    assert frame.npartitions == 10 and frame.known_divisions and frame.compute().equals(both)
    assert frame.loc[19_990:20_010].compute().equals(both.loc[19_990:20_010])
    assert frame.price.sum().compute() == pytest.approx(both.price.sum())
    frame = orva.dask.from_rows(tmp_path / "a", frame=True, columns=["price"])
    assert frame.compute().equals(pd.DataFrame({"price": rows["price"]}))


def test_files_by_a_pattern_whose_rows_begin_at_row0(here: Path) -> None:
    orva._orva.create(b"10.orva", b"a part of another program", 1, True, 1, BLOCK).finish()
    orva.append("10.orva", ROWS, row0=25, block=BLOCK)
    Path("9.orva").write_bytes(Path("10.orva").read_bytes())
    orva.append("9.orva", ROWS[:5], row0=25)
    MemoryFileSystem().put([f"{here}/9.orva", f"{here}/10.orva"], "/some/")
    for pattern in "[0-9]*.orva", f"file://{here}/*[0-9].orva", "memory://some/*", "simplecache::memory://some/*":
        parts: Any = orva.dask.from_rows(pattern, ROWS.dtype, row0=25, partition_bytes="64 KiB")
        assert parts.npartitions == 12 and np.array_equal(parts.compute(), np.concatenate([ROWS, ROWS[:5], ROWS]))
    with fsspec.open("orva::memory://some/9.orva", orva={"row0": 25}) as file:
        assert len(pickle.loads(pickle.dumps(file)).read()) == ROWS.nbytes + ROWS[:5].nbytes


NUMBERS = da.arange(100, chunks=10)
COLUMNS = pd.DataFrame({"n": np.arange(100), "x": np.ones(100)})
COLLECTIONS: dict[str, tuple[Any, Any]] = {
    "chunks of two axes": (da.from_array(np.eye(50), chunks=20), np.eye(50)),
    "empty partitions": (NUMBERS[NUMBERS > 44], np.arange(45, 100)),
    "frame": (dd.from_pandas(COLUMNS, npartitions=3), COLUMNS.to_records(index=False)),
}


@pytest.mark.parametrize(("collection", "rows"), COLLECTIONS.values(), ids=COLLECTIONS)
def test_what_is_written_is_the_collection(tmp_path: Path, collection: Any, rows: Any) -> None:
    orva.write(tmp_path / "out", np.zeros(3))
    orva.dask.to_rows(collection, tmp_path / "out")
    found = orva.rows(tmp_path / "out")
    assert found.dtype == rows.dtype and np.array_equal(found, rows)
    assert [path.name for path in tmp_path.iterdir()] == ["out"]


def test_a_repeated_task_is_harmless(tmp_path: Path) -> None:
    for _ in range(2):
        orva.dask._write_part(ROWS, str(tmp_path / "part"), ROWS.dtype, ())
    assert [path.name for path in tmp_path.iterdir()] == ["part"]


def test_the_example_ends_with_the_right_figure_though_a_worker_was_killed() -> None:
    example = ["/usr/bin/python3", Path(__file__).parents[2] / "examples/dask_statistic.py", "--size=60000000"]
    run = subprocess.run(example, timeout=200, capture_output=True, text=True)
    assert run.returncode == 0 and "killed a worker" in run.stdout and "all right" in run.stdout, run
