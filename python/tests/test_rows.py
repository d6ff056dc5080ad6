"""orva.rows against numpy's own arrays, and orva.write, append and to_frame."""

import io
import os
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from conftest import BLOCK, DAMAGED, ROWS, TRADE, trades

import orva

KEYS = [
    *(0, -1, np.int32(7), 20_000, -20_001, True, 1.5, None, ..., (), (5,), (1, 2)),
    *(slice(None), slice(3_000, 3_200), slice(None, None, -1), slice(9, 9), slice(19_990, 30_000)),
    slice(19_000, 5, -3_121),
    *([5, -1, 19_999, 5, 3_120], [], np.array([3, 2], np.uint16), np.array(3), [1, 20_000], [1.5]),
    np.arange(6).reshape(2, 3) * 3_000,
    *(ROWS["time"] % 777 == 3, [True, False]),
    *("price", "flags", ["name", "time"], "nope"),
    *((slice(5, 7),), ([1, 2],), (slice(5, 7), None)),
]


def outcome(array: Any, key: Any) -> Any:
    try:
        got = array[key]
        return type(got), got.dtype, got.shape, got.tobytes()
    except (IndexError, ValueError, TypeError) as error:
        return type(error), str(error)


@pytest.mark.parametrize("key", KEYS, ids=lambda key: repr(key)[:40])
def test_keys_are_numpys(shared: Path, key: Any) -> None:
    assert outcome(orva.rows(shared / "trades.orva"), key) == outcome(ROWS, key)


@pytest.mark.parametrize("key", [1, slice(1, 3), (slice(None), 2), ([0, 2], [1, 1]), (..., 0), (1, slice(1)), [[0], [3]]])
def test_rows_that_are_arrays(here: Path, key: Any) -> None:
    array = np.arange(12, dtype=">f4").reshape(4, 3)
    orva.write("matrix.orva", array)
    rows = orva.rows("matrix.orva")
    assert (rows.shape, rows.ndim, rows.nbytes, rows.dtype) == (array.shape, 2, 48, array.dtype)
    assert outcome(rows, key) == outcome(array, key)


ARRAYS = {
    "strided": ROWS[::-3],
    "of columns": np.asfortranarray(np.arange(12).reshape(3, 4)),
    "other byte order": np.arange(5, dtype=">i2"),
    "times": np.arange(5).astype("M8[ns]"),
    "text": np.array(["a", "bcd"]),
    "complex": np.array([1j, 2]),
    "padded": np.zeros(3, np.dtype([("a", "u1"), ("b", "f8")], align=True)),
    "nested": np.zeros(3, [("a", [("b", "<i2", (2, 2)), ("c", "S3")]), ("d", "<f4")]),
    "titles": np.zeros(3, [(("title", "name"), "<i4"), ("é\n", "u1")]),
    "two fields": np.zeros(3, [("a", "<i4"), ("b", "<f4")]),
    "many fields": np.zeros(3, [(f"field{i}", "<f8") for i in range(99)]),
    "no rows": ROWS[:0],
    "list": [1, 2, 3],
    "bytes without names": np.zeros(2, "V5"),
}


@pytest.mark.parametrize("array", ARRAYS.values(), ids=ARRAYS)
def test_arrays_come_back(here: Path, array: Any) -> None:
    orva.write("array.orva", array)
    rows = orva.rows("array.orva")
    assert orva.info("array.orva").row0 % 512 == 0
    assert rows.dtype == np.asarray(array).dtype
    assert np.asarray(rows).tobytes() == np.asarray(array).tobytes()
    assert rows[::-1].tobytes() == np.asarray(array)[::-1].tobytes()
    orva.append("array.orva", array)
    assert len(orva.rows("array.orva")) == 2 * len(array)


class Counting(io.BytesIO):
    reads = 0

    def readinto(self, to: Any) -> int:
        self.reads += 1
        return super().readinto(to)


WISHES: dict[str, tuple[Any, int]] = {
    "permuted": (lambda rows: rows[np.random.default_rng(2).permutation(20_000)], 7),
    "steps": (lambda rows: rows[5::2_000], 6),
    "row across a border": (lambda rows: rows[[3_120, 3_121]], 2),
    "field": (lambda rows: rows["price"], 7),
    "chunks": (lambda rows: list(rows.iter_chunks()), 7),
    "splits": (lambda rows: [rows[part] for part in rows.splits(7)], 7),
    "search": (lambda rows: rows.search("time", 9_000, 9_002), 4),
}


@pytest.mark.parametrize("threads", [1, 3])
@pytest.mark.parametrize("read, blocks", WISHES.values(), ids=WISHES)
def test_each_block_is_inflated_once(shared: Path, threads: int, read: Any, blocks: int) -> None:
    source = Counting((shared / "trades.orva").read_bytes())
    rows = orva.rows(source, threads=threads)
    source.reads = 0
    read(rows)
    assert source.reads <= blocks


def test_pieces_are_all_rows(shared: Path) -> None:
    rows = orva.rows(shared / "trades.orva", threads=2)
    for chunks in (rows.iter_chunks(), rows.iter_chunks(np.uint64(777)), [rows[part] for part in rows.splits(3)]):
        assert np.array_equal(np.concatenate(list(chunks)), ROWS)
    assert all(one == other for one, other in zip(rows, ROWS)) and len(list(rows)) == len(ROWS)
    out = np.zeros(9, TRADE)
    assert rows.read_into(out, 19_995) == 5 and np.array_equal(out[:5], ROWS[-5:])
    assert rows.read_into(out, 20_000) == rows.read_into(out, 1 << 62) == 0
    assert rows.search("time", 5.5, 70) == slice(6, 70)
    assert rows.search("time", 30_000, 5) == slice(20_000, 20_000)
    assert orva.rows(shared / "numbers.orva").search(None, 2, 100) == slice(2, 10)
    assert [part.stop for part in rows.splits(1 << 70)][-1] == 20_000 and len(rows.splits(1 << 70)) == 7


@pytest.mark.parametrize("threads", [1, 3])
def test_lost_rows_are_masked(shared: Path, threads: int) -> None:
    with pytest.raises(orva.DamagedFileError) as caught:
        np.asarray(orva.rows(shared / "bad.orva", threads=threads))
    assert caught.value.block == 3 and caught.value.offset == 3 * BLOCK
    rows = orva.rows(shared / "bad.orva", damaged="mask", threads=threads)
    assert not rows[:9_000].mask['time'].any() and rows.lost == []
    sound = np.ones(len(ROWS), bool)
    sound[DAMAGED] = False
    every, twice = np.arange(len(ROWS)), np.arange(2 * len(ROWS))[::-1] // 2
    for values, numbers in ((rows[:], every), (rows[twice], twice), (rows["time"], every)):
        mask = values.mask if values.dtype.names is None else values.mask["time"]
        assert np.array_equal(~mask, sound[numbers])
        times = values if values.dtype.names is None else values["time"]
        assert np.array_equal(times.compressed(), numbers[sound[numbers]])
    assert rows.lost == [(DAMAGED.start, DAMAGED.stop)]


# Blocks that are damaged, keys, and the rows that are found: all that may be meant, since keys may come more than once.
SEARCHES = [
    *(([3], 9_000, 9_361, (9_000, 9_361)), ([3], 12_485, 13_000, (12_485, 13_000)), ([3], 9_000, 13_000, (9_000, 13_000))),
    *(([3], 9_400, 9_401, (9_362, 12_484)), ([3], 9_361, 10_000, (9_361, 12_484)), ([3], 12_000, 12_485, (9_362, 12_485))),
    *(([3], 0, 9_362, (0, 12_484)), ([3], 12_484, 13_000, (9_362, 13_000)), (range(7), 5, 9, (0, 20_000))),
    *(([0, 1], 5, 9, (0, 6_242)), ([5, 6], 15_609, 15_613, (15_603, 20_000))),
]


@pytest.mark.parametrize("blocks, low, high, found", SEARCHES)
def test_a_search_goes_around_lost_rows(here: Path, blocks: Any, low: int, high: int, found: tuple[int, int]) -> None:
    bad = bytearray(Path("trades.orva").read_bytes())
    for block in (orva.info("trades.orva").blocks[number] for number in blocks):
        bad[block.file_offset + 99 : block.file_offset + 107] = b"\xff" * 8
    assert orva.rows(io.BytesIO(bad), damaged="mask").search("time", low, high) == slice(*found)


@pytest.mark.parametrize("stored, asked", [("u8", int), ("u8", np.int64), ("i8", np.uint64), ("f8", int)])
def test_a_search_tells_near_numbers_apart(here: Path, stored: str, asked: Any) -> None:
    orva.write("near.orva", (np.arange(99) * 2 + (1 << 53)).astype(stored))
    assert orva.rows("near.orva").search(None, asked((1 << 53) + 7), asked((1 << 53) + 9)) == slice(4, 5)


def test_frames(here: Path) -> None:
    plain = [("time", ">i8"), ("price", "<f8")]
    orva.write("plain.orva", np.array([(1, 0.5), (2, 1.5)], plain))
    frame = orva.to_frame("plain.orva")
    assert list(frame.columns) == ["time", "price"] and frame["time"].tolist() == [1, 2]
    assert frame["time"].dtype == np.dtype("i8") and frame["time"].dtype.isnative
    assert list(orva.to_frame("plain.orva", ["price"]).columns) == ["price"]
    assert orva.to_frame("trades.orva", ["price", "name"]).equals(orva.to_frame("trades.orva", ("price", "name")))
    assert orva.to_frame("numbers.orva", dtype=[("low", "<i4"), ("high", "<i4")]).shape == (10, 2)


def test_an_interrupted_append(here: Path) -> None:
    os.unlink("trades.orva")
    orva.write("trades.orva", ROWS)
    if (child := os.fork()) == 0:
        file = orva.open("trades.orva", "ab")
        file.write(trades(500_000))
        os._exit(0)  # as a crash would
    os.waitpid(child, 0)
    with pytest.raises(orva.UnfinishedFileError, match="orva recover --roll-back"):
        orva.append("trades.orva", ROWS)
    orva.append("trades.orva", ROWS, roll_back=True)
    assert np.array_equal(orva.rows("trades.orva")[:], np.concatenate([ROWS, ROWS]))
    assert orva.roll_back("trades.orva") == "nothing"
