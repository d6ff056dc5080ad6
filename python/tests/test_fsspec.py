"""orva:// over file systems of several kinds: local, with ranged reads of their own, with buffered files only, the web's."""

from __future__ import annotations

import functools
import http.server
import io
import pathlib
import pickle
import threading
from collections.abc import Iterator
from typing import Any

import dask.dataframe as dd
import fsspec
import numpy as np
import pandas as pd
import pytest
from fsspec.implementations.memory import MemoryFileSystem
from fsspec.spec import AbstractBufferedFile, AbstractFileSystem

import orva
import orva.dask

BLOCK = 131_072
CSV = pd.DataFrame({"n": np.arange(40_000), "x": np.random.default_rng(1).normal(size=40_000)}).to_csv(index=False).encode()
FRAME = pd.read_csv(io.BytesIO(CSV))
BLOCKS = -(-len(CSV) // BLOCK)


class Ranges(MemoryFileSystem):
    protocol = "ranges"
    reads: list[tuple[int, int]] = []

    @classmethod
    def _strip_protocol(cls, path: str) -> str:
        return path.removeprefix(f"{cls.protocol}://")

    def cat_file(self, path: str, start: Any = None, end: Any = None, **kwargs: Any) -> bytes:
        self.reads.append((start, end))
        return super().cat_file(path, start, end)


class File(AbstractBufferedFile):
    def _fetch_range(self, start: int, end: int) -> bytes:
        return Ranges().cat_file(self.path, start, end)


class Buffered(Ranges):
    protocol = "buffered"
    cat_file = AbstractFileSystem.cat_file

    def _open(self, path: str, mode: str = "rb", **kwargs: Any) -> File:
        return File(self, path, mode)


for kind in Ranges, Buffered:
    fsspec.register_implementation(kind.protocol, kind, clobber=True)


@pytest.fixture(scope="module")
def home(tmp_path_factory: pytest.TempPathFactory) -> str:
    path = tmp_path_factory.mktemp("csv")
    with orva.open(path / "a.csv.orva", "wb", block=BLOCK) as file:
        file.write(CSV)
    stored = (path / "a.csv.orva").read_bytes()
    (path / "b.csv.orva").write_bytes(stored)
    (path / "c.csv.orva").write_text("no rows")
    MemoryFileSystem().pipe({f"{path}/{name}.csv.orva": stored for name in "ab"})
    return str(path)


PROTOCOLS = pytest.mark.parametrize("protocol", ["file", "ranges", "buffered"])


@PROTOCOLS
def test_engines_split_a_compressed_csv(protocol: str, home: str) -> None:
    options = {"target_protocol": protocol}
    assert pd.read_csv(f"orva://{home}/a.csv.orva", storage_options=options).equals(FRAME)
    assert pd.read_csv(f"orva://::{protocol}://{home}/a.csv.orva").equals(FRAME)
    one = dd.read_csv(f"orva::{protocol}://{home}/a.csv.orva", blocksize=200_000)
    many = dd.read_csv(f"orva://{home}/*[ab].csv.orva", blocksize=200_000, storage_options=options)
    assert many.npartitions == 2 * one.npartitions and one.npartitions >= 4
    assert one.compute().reset_index(drop=True).equals(FRAME)
    assert many.compute().reset_index(drop=True).equals(pd.concat([FRAME, FRAME], ignore_index=True))


@pytest.mark.parametrize("protocol", ["ranges", "buffered"])
def test_opening_costs_three_reads_and_each_block_one(protocol: str, home: str) -> None:
    Ranges.reads.clear()
    with fsspec.filesystem("orva", fo=f"{home}/a.csv.orva", target_protocol=protocol).open("") as file:
        assert len(Ranges.reads) <= 3
        Ranges.reads.clear()
        assert file.read() == CSV and len(Ranges.reads) == BLOCKS
        Ranges.reads.clear()
        for at in BLOCK // 4, BLOCK * 5 + 9, BLOCK // 4, BLOCK * 5 + 9:  # as an engine looks for the ends of its share
            file.seek(at)
            assert file.read(BLOCK // 4) == CSV[at : at + BLOCK // 4]
        assert len(Ranges.reads) == 2


@PROTOCOLS
def test_paths_are_the_targets_and_sizes_are_of_rows(protocol: str, home: str) -> None:
    a = f"{home}/a.csv.orva"
    single = pickle.loads(pickle.dumps(fsspec.filesystem("orva", fo=a, target_protocol=protocol)))
    fs = fsspec.filesystem("orva", target_protocol=protocol)
    for one, path in (single, ""), (fs, f"orva://{a}"):
        assert one.info(path)["size"] == len(CSV) and one.ukey(path) == fsspec.filesystem(protocol).ukey(a)
        assert one.isfile(path) and one.exists(path) and not one.isdir(path)
    assert single.ls("", detail=False) == [""] and fs.isdir(home) and single.tail("", 7) == CSV[-7:]
    Ranges.reads.clear()
    assert {entry["size"] for entry in fs.ls(home)} == {None}  # of local ones, one has no rows
    assert fs.glob(f"{home}/[ab].csv.*") == [a, f"{home}/b.csv.orva"] and Ranges.reads == []


class Server(http.server.SimpleHTTPRequestHandler):
    """With ranges, as stores give them; under /whole/ without."""

    protocol_version = "HTTP/1.1"
    reads: list[str | None] = []

    def log_message(self, *told: Any) -> None:
        pass

    def translate_path(self, path: str) -> str:
        return super().translate_path(path.removeprefix("/whole"))

    def do_GET(self) -> None:
        self.reads.append(self.headers["Range"])
        if self.headers["Range"] is None or self.path.startswith("/whole"):
            return super().do_GET()
        begin, last = map(int, self.headers["Range"].removeprefix("bytes=").split("-"))
        rows = pathlib.Path(self.translate_path(self.path)).read_bytes()[begin : last + 1]
        self.send_response(206)
        self.send_header("Content-Length", str(len(rows)))
        self.end_headers()
        self.wfile.write(rows)


@pytest.fixture
def url(home: str) -> Iterator[str]:
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Server, directory=home)) as server:
        threading.Thread(target=server.serve_forever).start()
        Server.reads.clear()
        yield f"http://127.0.0.1:{server.server_port}"
        server.shutdown()


def test_a_web_server(home: str, url: str, tmp_path: pathlib.Path) -> None:
    assert pd.read_csv(f"orva://::{url}/a.csv.orva").equals(FRAME)
    many = dd.read_csv(f"orva://{url}/*[ab].csv.orva", blocksize=200_000, storage_options={"target_protocol": "http"})
    assert many.compute().equals(dd.concat([dd.read_csv(f"orva::{url}/a.csv.orva", blocksize=200_000)] * 2).compute())
    assert Server.reads.count(None) <= 4  # of the list of files: none of a file
    Server.reads.clear()
    rows: Any = orva.dask.from_rows(f"{url}/a.csv.orva", "u1", partition_bytes=BLOCK)
    opened, client = len(Server.reads), len(Server.reads) - BLOCKS
    assert rows.compute(num_workers=8).tobytes() == CSV and client <= 3
    assert len(Server.reads) - opened <= opened + BLOCKS, "a file is opened once by all threads"
    Server.reads.clear()
    for whole in (f"{url}/b.csv.orva", f"{url}/whole/a.csv.orva"):
        cached = {"simplecache": {"cache_storage": str(tmp_path)}}
        assert fsspec.open(f"orva::simplecache::{whole}", **cached).open().read() == CSV
        rows = orva.dask.from_rows(f"simplecache::{whole}", "u1", storage_options=cached)
        assert rows.compute().tobytes() == CSV
    assert Server.reads == [None, None]
    with pytest.raises(OSError, match="more than the range.*simplecache::"):
        orva.dask.from_rows(f"{url}/whole/a.csv.orva", "u1")


REFUSED = {"a": ("wb", OSError), "c": ("rb", orva.DamagedFileError), "d": ("rb", FileNotFoundError)}


@pytest.mark.parametrize("name", REFUSED)
def test_what_is_no_file_of_rows(name: str, home: str) -> None:
    mode, error = REFUSED[name]
    with pytest.raises(error):
        fsspec.filesystem("orva").open(f"{home}/{name}.csv.orva", mode)
    with pytest.raises(ValueError, match="opens one file"):
        fsspec.open_files([f"orva::file://{home}/{name}", "orva::file:///other"])
