"""orva:// over file systems of three kinds: local, with ranged reads of their own, and with buffered files only."""

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
from fsspec.implementations.local import LocalFileSystem
from fsspec.spec import AbstractBufferedFile, AbstractFileSystem

import orva
import orva.dask

BLOCK = 131_072
CSV = pd.DataFrame({"n": np.arange(40_000), "x": np.random.default_rng(1).normal(size=40_000)}).to_csv(index=False).encode()
FRAME = pd.read_csv(io.BytesIO(CSV))
BLOCKS = -(-len(CSV) // BLOCK)
READS: list[Any] = []  # of files of rows


class File(AbstractBufferedFile):
    def _fetch_range(self, start: int, end: int) -> bytes:
        READS.append((start, end))
        return pathlib.Path(self.path).read_bytes()[start:end]


class Buffered(AbstractFileSystem):
    protocol = "buffered"

    def ls(self, path: str, detail: bool = True, **kwargs: Any) -> Any:
        return LocalFileSystem().ls(self._strip_protocol(path), detail)

    def _open(self, path: str, mode: str = "rb", **kwargs: Any) -> File:
        return File(self, path, mode)


fsspec.register_implementation("buffered", Buffered, clobber=True)


class Server(http.server.SimpleHTTPRequestHandler):
    """With ranges, as stores give them; under /whole/ without."""

    protocol_version = "HTTP/1.1"

    def log_message(self, *told: Any) -> None:
        pass

    def translate_path(self, path: str) -> str:
        return super().translate_path(path.removeprefix("/whole"))

    def do_GET(self) -> None:
        wanted = self.headers["Range"]
        if self.path.endswith(".orva"):
            READS.append(wanted)
        if wanted is None or self.path.startswith("/whole"):
            return super().do_GET()
        begin, last = map(int, wanted.removeprefix("bytes=").split("-"))
        rows = pathlib.Path(self.translate_path(self.path)).read_bytes()[begin : last + 1]
        self.send_response(206)
        self.send_header("Content-Length", str(len(rows)))
        self.end_headers()
        self.wfile.write(rows)


@pytest.fixture(scope="module")
def homes(tmp_path_factory: pytest.TempPathFactory) -> Iterator[dict[str, str]]:
    """The name of one directory in each file system."""
    path = tmp_path_factory.mktemp("csv")
    for name in "ab":
        with orva.open(path / f"{name}.csv.orva", "wb", block=BLOCK) as file:
            file.write(CSV)
    (path / "c.orva").write_text("no rows")
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Server, directory=str(path))) as server:
        threading.Thread(target=server.serve_forever).start()
        yield {"file": str(path), "buffered": str(path), "http": f"http://127.0.0.1:{server.server_port}"}
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


@pytest.mark.parametrize("protocol", ["http", "buffered"])
def test_opening_costs_three_reads_and_each_block_one(protocol: str, homes: dict[str, str]) -> None:
    READS.clear()
    with fsspec.filesystem("orva", fo=f"{homes[protocol]}/a.csv.orva", target_protocol=protocol).open("") as file:
        assert len(READS) <= 3
        READS.clear()
        assert file.read() == CSV and len(READS) == BLOCKS
        READS.clear()
        for at in BLOCK // 4, BLOCK * 5 + 9, BLOCK // 4, BLOCK * 5 + 9:  # as an engine looks for the ends of its share
            file.seek(at)
            assert file.read(BLOCK // 4) == CSV[at : at + BLOCK // 4]
        assert len(READS) == 2


@PROTOCOLS
def test_paths_are_the_targets_and_sizes_are_of_rows(protocol: str, homes: dict[str, str]) -> None:
    home = homes[protocol]
    a = f"{home}/a.csv.orva"
    single = pickle.loads(pickle.dumps(fsspec.filesystem("orva", fo=a, target_protocol=protocol)))
    fs = fsspec.filesystem("orva", target_protocol=protocol)
    for one, path in (single, ""), (fs, f"orva://{a}"):
        assert one.info(path)["size"] == len(CSV) and one.ukey(path) == fsspec.filesystem(protocol).ukey(a)
        assert one.isfile(path) and one.exists(path) and not one.isdir(path)
    assert single.ls("", detail=False) == [""] and single.tail("", 7) == CSV[-7:]
    assert fs.isdir(home) == (protocol != "http") and not fs.isdir(f"{home}/none")
    READS.clear()
    assert {entry["size"] for entry in fs.ls(home)} == {None}  # one of them has no rows
    assert sorted(fs.glob(f"{home}/*[ab].csv.*")) == [a, f"{home}/b.csv.orva"] and READS == []


def test_partitions_over_a_store(homes: dict[str, str], tmp_path: pathlib.Path) -> None:
    READS.clear()
    rows: Any = orva.dask.from_rows(f"{homes['http']}/a.csv.orva", "u1", partition_bytes=BLOCK)
    opened = len(READS)
    assert opened <= 3 + BLOCKS and rows.compute(num_workers=8).tobytes() == CSV
    assert len(READS) <= 2 * opened + BLOCKS, "not every thread opens it"
    READS.clear()
    cached = {"simplecache": {"cache_storage": str(tmp_path)}}
    for whole in (f"{homes['http']}/b.csv.orva", f"{homes['http']}/whole/a.csv.orva"):
        assert fsspec.open(f"orva::simplecache::{whole}", **cached).open().read() == CSV
        rows = orva.dask.from_rows(f"simplecache::{whole}", "u1", storage_options=cached)
        assert rows.compute().tobytes() == CSV
    assert READS == [None, None]
    with pytest.raises(OSError, match="more than the range.*simplecache::"):
        orva.dask.from_rows(whole, "u1")
