"""orva.dask on Dask's own threads; many processes are the example's part."""

import functools
import pickle
import subprocess
from pathlib import Path
from typing import Any

import conftest
import dask.array as da
import dask.dataframe as dd
import numpy as np
import pandas as pd
import pytest
from conftest import BLOCK
from fsspec.implementations.memory import MemoryFileSystem
from numpy.lib.recfunctions import repack_fields

import orva
import orva.dask

ROWS = repack_fields(conftest.ROWS[["time", "price", "name"]])  # 18 bytes, in six blocks: rows stand across borders
write = functools.partial(orva.write, block=BLOCK)
SHAPES: dict[str, Any] = {
    "records": ROWS,
    "numbers": np.arange(50_000),
    "rows of arrays": np.arange(120_000, dtype=np.float32).reshape(-1, 4, 3),
    "one block": ROWS[:10],
    "no rows": ROWS[:0],
    "rows longer than a block": np.zeros(3, (np.void, 100_000)),
}


@pytest.mark.parametrize("rows", SHAPES.values(), ids=SHAPES)
@pytest.mark.parametrize("partition", [1, 100_000, 1 << 30])
def test_partitions_are_the_rows_and_share_at_most_one(tmp_path: Path, rows: Any, partition: int) -> None:
    write(tmp_path / "a", rows)
    array: Any = orva.dask.from_rows(str(tmp_path / "a"), partition_bytes=partition)
    got = array.compute()
    assert got.dtype == rows.dtype and np.array_equal(got, rows)
    borders = np.cumsum([0, *array.chunks[0]]) * (rows.nbytes // max(len(rows), 1))
    for block in orva.info(tmp_path / "a").blocks:
        begin, end = block.rows.offset, block.rows.offset + block.rows.length
        sharing = sum(first < end and last > begin for first, last in zip(borders, borders[1:]))
        assert sharing <= 2
    MemoryFileSystem().pipe("/a", (tmp_path / "a").read_bytes())
    assert np.array_equal(orva.dask.from_rows("memory://a").compute(), rows)
    assert max(len(pickle.dumps(dict(array.dask)[key])) for key in dict(array.dask)) < 1_000


def test_frames_number_rows_and_read_the_columns_that_are_wanted(tmp_path: Path) -> None:
    for name in "ab":
        write(tmp_path / name, ROWS)
    frame: Any = orva.dask.from_rows([tmp_path / "a", tmp_path / "b"], frame=True, partition_bytes=BLOCK)
    one = orva.to_frame(tmp_path / "a")
    both = pd.concat([one, one], ignore_index=True)
    assert frame.npartitions == 10 and frame.known_divisions
    assert frame.compute().equals(both)
    assert frame.loc[19_990:20_010].compute().equals(both.loc[19_990:20_010])
    assert frame.price.sum().compute() == pytest.approx(both.price.sum())
    orva.append(tmp_path / "a", ROWS[:5])
    assert len(orva.dask.from_rows(str(tmp_path / "a"), frame=True)) == len(ROWS) + 5


RANDOM = np.random.default_rng(2).integers(0, 1 << 63, 100_000)  # every block takes as many bytes, whatever is in it
# The rows that a file had, what happens to it, with which rows, and whether partitions still are what they were.
CHANGES: dict[str, tuple[Any, Any, Any, bool]] = {
    "rows added": (RANDOM, orva.append, RANDOM, True),
    "rows added to one block": (RANDOM[:9], orva.append, RANDOM[:9], True),
    "rows added to none": (RANDOM[:0], orva.append, RANDOM, True),
    "nothing added": (RANDOM, orva.append, RANDOM[:0], True),
    "written again": (RANDOM, write, RANDOM, True),
    "other rows": (RANDOM, write, RANDOM + 1, False),
    "one row": (RANDOM, write, [*RANDOM[:50_000], 1, *RANDOM[50_001:]], False),
    "the last row": (RANDOM, write, [*RANDOM[:-1], 1], False),
    "the last row, and one more": (RANDOM, write, [*RANDOM[:-1], 1, 1], False),
    "one of one block, and one more": (RANDOM[:9], write, RANDOM[5:15], False),
    "fewer rows": (RANDOM, write, RANDOM[:-1], False),
    "other blocks": (RANDOM, orva.write, RANDOM, False),
}


@pytest.mark.parametrize(("rows", "change", "by", "same"), CHANGES.values(), ids=CHANGES)
@pytest.mark.parametrize("store", ["", "memory://"])
def test_a_partition_is_never_of_other_rows(tmp_path: Path, store: str, rows: Any, change: Any, by: Any, same: bool) -> None:
    path = str(tmp_path / "a")
    write(path, rows)
    MemoryFileSystem().pipe(path, Path(path).read_bytes())
    array: Any = orva.dask.from_rows(store + path, partition_bytes=BLOCK)
    change(path, by)
    MemoryFileSystem().pipe(path, Path(path).read_bytes())
    if same:
        assert np.array_equal(array.compute(), rows)
    else:
        caught = pytest.raises(orva.FileChangedError, array.compute)
        assert caught.match("other rows than when its partitions were made") and caught.value.path == store + path


NUMBERS = da.arange(100, chunks=10)
COLLECTIONS: dict[str, tuple[Any, Any]] = {
    "array": (da.from_array(ROWS, chunks=7_000), ROWS),
    "chunks of two axes": (da.from_array(np.eye(50), chunks=20), np.eye(50)),
    "empty partitions": (NUMBERS[NUMBERS > 44], np.arange(45, 100)),
    "frame": (
        dd.from_pandas(pd.DataFrame({"n": np.arange(100), "x": np.ones(100)}), npartitions=3),
        np.array([(n, 1) for n in range(100)], [("n", "<i8"), ("x", "<f8")]),
    ),
}


@pytest.mark.parametrize(("collection", "rows"), COLLECTIONS.values(), ids=COLLECTIONS)
def test_what_is_written_is_the_collection(tmp_path: Path, collection: Any, rows: Any) -> None:
    orva.write(tmp_path / "out", np.zeros(3))
    orva.dask.to_rows(collection, tmp_path / "out")
    with orva.rows(tmp_path / "out") as found:
        assert found.dtype == rows.dtype and np.array_equal(found[:], rows)
    assert [path.name for path in tmp_path.iterdir()] == ["out"]


def test_a_repeated_task_is_harmless(tmp_path: Path) -> None:
    for _ in range(2):
        orva.dask._write_part(ROWS, str(tmp_path / "part"), ROWS.dtype, ())
    assert [path.name for path in tmp_path.iterdir()] == ["part"]


def test_the_example_ends_with_the_right_figure_though_a_worker_was_killed() -> None:
    example = Path(__file__).parents[2] / "examples/dask_statistic.py"
    run = subprocess.run(["/usr/bin/python3", example, "--size=60000000"], timeout=200, capture_output=True, text=True)
    assert run.returncode == 0 and "killed a worker" in run.stdout and "all right" in run.stdout, run
