"""orva:// over file systems of three kinds: local, with ranged reads of their own, and with buffered files only."""

import io
import pickle
from pathlib import Path
from typing import Any

import dask.dataframe as dd
import fsspec
import numpy as np
import pandas as pd
import pytest
from fsspec.implementations.memory import MemoryFileSystem
from fsspec.spec import AbstractBufferedFile, AbstractFileSystem

import orva

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
def name(tmp_path_factory: pytest.TempPathFactory) -> str:
    path = tmp_path_factory.mktemp("csv") / "a.csv.orva"
    with orva.open(path, "wb", block=BLOCK) as file:
        file.write(CSV)
    (path.parent / "b.csv.orva").write_bytes(path.read_bytes())
    for each in "ab":
        MemoryFileSystem().pipe(f"/{each}.csv.orva", path.read_bytes())
    Path(path.parent, "c.csv.orva").write_text("no rows")
    return str(path)


def prefix(protocol: str, name: str) -> str:
    return str(Path(name).parent) if protocol == "file" else ""


PROTOCOLS = pytest.mark.parametrize("protocol", ["file", "ranges", "buffered"])


@PROTOCOLS
def test_engines_split_a_compressed_csv(protocol: str, name: str) -> None:
    home = prefix(protocol, name)
    options = {"target_protocol": protocol}
    assert pd.read_csv(f"orva://{home}/a.csv.orva", storage_options=options).equals(FRAME)
    assert pd.read_csv(f"orva://::{protocol}://{home}/a.csv.orva").equals(FRAME)
    one = dd.read_csv(f"orva::{protocol}://{home}/a.csv.orva", blocksize=200_000)
    many = dd.read_csv(f"orva://{home}/*[ab].csv.orva", blocksize=200_000, storage_options=options)
    assert many.npartitions == 2 * one.npartitions and one.npartitions >= 4
    assert one.compute().reset_index(drop=True).equals(FRAME)
    assert many.compute().reset_index(drop=True).equals(pd.concat([FRAME, FRAME], ignore_index=True))


@pytest.mark.parametrize("protocol", ["ranges", "buffered"])
def test_opening_costs_three_reads_and_each_block_one(protocol: str, name: str) -> None:
    fs = fsspec.filesystem("orva", fo="/a.csv.orva", target_protocol=protocol)
    Ranges.reads.clear()
    with fs.open("") as file:
        assert len(Ranges.reads) <= 3
        Ranges.reads.clear()
        assert file.read() == CSV
        assert len(Ranges.reads) == BLOCKS
        Ranges.reads.clear()
        for at in BLOCK // 4, BLOCK * 5 + 9, BLOCK // 4, BLOCK * 5 + 9:  # as an engine looks for the ends of its share
            file.seek(at)
            assert file.read(BLOCK // 4) == CSV[at : at + BLOCK // 4]
        assert len(Ranges.reads) == 2


@PROTOCOLS
def test_paths_are_the_targets_and_sizes_are_of_rows(protocol: str, name: str) -> None:
    home, target = prefix(protocol, name), fsspec.filesystem(protocol)
    single = pickle.loads(pickle.dumps(fsspec.filesystem("orva", fo=f"{home}/a.csv.orva", target_protocol=protocol)))
    fs = fsspec.filesystem("orva", target_protocol=protocol)
    for one, path in (single, ""), (fs, f"orva://{home}/a.csv.orva"):
        assert one.info(path)["size"] == len(CSV) == one.size(path)
        assert one.ukey(path) == target.ukey(f"{home}/a.csv.orva")
        assert one.isfile(path) and one.exists(path) and not one.isdir(path)
    assert single.ls("", detail=False) == [""] and fs.isdir(home or "/")
    assert single.cat_file("", -30, -10) == CSV[-30:-10] and single.tail("", 7) == CSV[-7:]
    Ranges.reads.clear()
    assert {entry["size"] for entry in fs.ls(home) if entry["type"] == "file"} == {None}  # c.csv.orva has no rows
    assert fs.glob(f"{home}/[ab].csv.*") == [f"{home}/a.csv.orva", f"{home}/b.csv.orva"] and Ranges.reads == []


def test_what_is_no_file_of_rows(name: str) -> None:
    fs = fsspec.filesystem("orva")
    for path, mode, error in (
        (name.replace("a.csv", "c.csv"), "rb", orva.DamagedFileError),
        (name + ".not", "rb", FileNotFoundError),
        (name, "wb", OSError),
    ):
        with pytest.raises(error):
            fs.open(path, mode)
    with pytest.raises(ValueError, match="opens one file"):
        fsspec.open_files([f"orva::file://{name}", "orva::file:///other"])
