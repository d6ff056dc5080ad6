# orva.rows compared with numpy's own arrays; orva.write, append and to_frame.

import io
import itertools
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
import pytest
from conftest import BLOCK, ROWS, TRADE, Slow, damaged

import orva

MATRIX = np.arange(12, dtype=">f4").reshape(4, 3)
INDEX: Any = type("Index", (), {"__index__": lambda self: -5})()
ONES = (0, INDEX, -1, np.int32(7), 20_000, -20_001, True, np.True_, 1.5, None, ..., "price", "flags", "nope")
SLICES = (slice(3_000, 3_200), slice(None, None, -1), slice(9, 9), slice(19_990, 30_000), slice(19_000, 5, -3_121), np.s_[7:19_990:3])
LISTS = ([5, -1, 19_999, 5, 3_120], [], [1, 20_000], [1.5], [True, False], ["name", "time"])
ARRAYS = (np.array([3, 2], np.uint16), np.array(3), np.arange(6).reshape(2, 3) * 3_000, ROWS["time"] % 777 == 3)
TUPLES = ((), ((),), (range(3, -3, -1),), ((3, 2),), (1, 2), (slice(5, 7),), ([1, 2],), (slice(5, 7), None))
INNER = (1, slice(1, 3), (slice(None), 2), ([0, 2], [1, 1]), (..., 0), (1, slice(1)), [[0], [3]])
KEYS = [(ROWS, key) for key in (*ONES, *SLICES, *LISTS, *ARRAYS, *TUPLES)] + [(MATRIX, key) for key in INNER]


def outcome(array: Any, key: Any) -> Any:
    try:
        got = array[key]
        return type(got), got.dtype, got.shape, got.tobytes()
    except (IndexError, ValueError, TypeError) as error:
        return type(error), str(error)


@pytest.mark.parametrize("array, key", KEYS, ids=lambda key: repr(key)[-40:])
def test_keys_are_numpys(here: Path, array: Any, key: Any) -> None:
    orva.write("matrix.orva", MATRIX)
    assert outcome(orva.rows("trades.orva" if array is ROWS else "matrix.orva"), key) == outcome(array, key)


PADDED = np.dtype([("a", "u1"), ("b", "f8")], align=True)
NESTED = [("of", [("b", "<i2", (2, 2)), ("c", "S3")]), (("title", "name"), "<i4"), ("é\n", "u1"), ("padded", PADDED)]
PLAIN = [("times", ">M8[ns]"), ("text", "<U3"), ("complex", "c16"), ("bytes", "V5")]
WRITTEN: dict[str, Any] = {
    "strided": ROWS[::-3],
    "of columns": np.asfortranarray(np.arange(12).reshape(3, 4)),
    "fields of all kinds": np.zeros(3, NESTED + PLAIN),
    "many fields": np.zeros(3, [(f"field{i}", "<f8") for i in range(99)]),
    "no rows": ROWS[:0],
    "parts of rows that no field has": np.frombuffer(bytes(range(240)), PADDED)[::2],
}


@pytest.mark.parametrize("written", WRITTEN.values(), ids=WRITTEN)
def test_arrays_come_back(here: Path, written: Any) -> None:
    orva.write("array.orva", written)
    rows, array = orva.rows("array.orva"), np.asarray(written)
    assert orva.info("array.orva").row0 % 512 == 0
    assert (rows.dtype, rows.shape, rows.ndim, rows.nbytes) == (array.dtype, array.shape, array.ndim, array.nbytes)
    assert np.asarray(rows).tobytes() == rows.__array__(copy=True).tobytes() == array.tobytes() and rows[::-1].tobytes() == array[::-1].tobytes()
    orva.append("array.orva", written)
    assert len(orva.rows("array.orva")) == 2 * len(array)


WISHES: dict[str, tuple[Any, int]] = {
    "permuted": (lambda rows: rows[np.random.default_rng(2).permutation(20_000)], 7),
    "numbers that are no list": (lambda rows: (rows[range(3)], rows[memoryview(b"12")], rows[INDEX]), 2),
    "field": (lambda rows: rows["price"], 7),
    "search": (lambda rows: rows.search("time", 9_000, 9_002), 4),
}


@pytest.mark.parametrize("threads", [1, 3])
@pytest.mark.parametrize("read, blocks", WISHES.values(), ids=WISHES)
def test_each_block_is_inflated_once(shared: Path, threads: int, read: Any, blocks: int) -> None:
    source = Slow((shared / "trades.orva").read_bytes())
    rows = orva.rows(source, threads=threads)
    source.reads = 0
    read(rows)
    assert source.reads <= blocks


def test_pieces_are_all_rows(shared: Path) -> None:
    rows = orva.rows(shared / "trades.orva", threads=2)
    many = orva.rows(shared / "trades.orva", threads=(1 << 31) - 1).iter_chunks()
    for chunks in (rows.iter_chunks(), rows.iter_chunks(np.uint64(777)), [rows[part] for part in rows.splits(3)], many):
        assert np.array_equal(np.concatenate(list(chunks)), ROWS)
    assert list(rows) == list(ROWS)
    out = np.zeros(9, TRADE)
    assert rows.read_into(out, 19_995) == 5 and np.array_equal(out[:5], ROWS[-5:])
    assert rows.read_into(out, 20_000) == rows.read_into(out, 1 << 62) == 0
    assert [part.stop for part in rows.splits(1 << 70)][-1] == 20_000 and len(rows.splits(1 << 70)) == 7


@pytest.mark.parametrize("threads", [1, 3])
def test_lost_rows_are_masked(shared: Path, threads: int) -> None:
    error = pytest.raises(orva.DamagedFileError, np.asarray, orva.rows(shared / "bad.orva", threads=threads)).value
    assert error.block == 3 and error.offset == 3 * BLOCK
    rows = orva.rows(shared / "bad.orva", damaged="mask", threads=threads)
    assert not rows[1:9_363:60].mask["time"].any() and rows.lost == []  # up to the last row before the lost ones
    every, twice = np.arange(20_000), np.arange(40_000)[::-1] // 2
    wishes = (rows[:], every), (rows[twice], twice), (rows[::-3], every[::-3])
    for values, numbers in (*((got["time"], of) for got, of in wishes), (rows["time"], every)):
        assert np.array_equal(values.mask, (numbers >= 9_362) & (numbers < 12_484))
        assert np.array_equal(values.compressed(), numbers[~values.mask])
    assert rows.lost == [(9_362, 12_484)]


EDGES = (0, 5.5, 6_241, 6_242, 9_361, 9_362, 9_364, 12_483, 12_484, 15_610, 20_000, 30_000)  # of blocks, and within them


# The result holds all rows that may match, lost ones too unless the sound ones around rule them out.
@pytest.mark.parametrize("blocks", [(), (3,), (0, 1), (5, 6), range(7)])
def test_a_search_goes_around_lost_rows(shared: Path, blocks: Any) -> None:
    rows = orva.rows(io.BytesIO(damaged(shared / "trades.orva", *blocks)), damaged="mask")
    sound = rows["time"].compressed()
    for low, high in itertools.combinations(EDGES, 2):
        first, end = max(sound[sound < low], default=-1) + 1, min(sound[sound >= high], default=20_000)
        assert rows.search("time", low, high) == slice(first, end), (low, high)


def test_a_search_tells_near_numbers_apart(here: Path) -> None:
    for stored, asked in (("u8", int), ("u8", np.int64), ("i8", np.uint64), ("f8", int)):
        orva.write("near.orva", (np.arange(99) * 2 + (1 << 53)).astype(stored))
        assert orva.rows("near.orva").search(None, asked((1 << 53) + 7), asked((1 << 53) + 9)) == slice(4, 5), stored


def test_frames(here: Path) -> None:
    assert orva.to_frame("numbers.orva", dtype=[("n", ">f8")]).equals(pd.DataFrame({"n": np.arange(10.0).byteswap()}))
    some = {name: ROWS[name] for name in ("price", "name")}
    assert orva.to_frame("trades.orva", tuple(some)).equals(pd.DataFrame(some))
    frame = pd.DataFrame({"time": [1, (1 << 60) + 1], "price": [0.5, 1.5]}, index=[3, 9])
    orva.write("frame.orva", frame)
    orva.append("frame.orva", frame)
    assert orva.to_frame("frame.orva").equals(pd.concat([frame, frame], ignore_index=True))


def test_an_interrupted_append(here: Path) -> None:
    Path("numbers.orva.orva-undo").touch()  # as a crash before the first change leaves it
    pytest.raises(orva.UnfinishedFileError, orva.append, "numbers.orva", [1.0]).match("orva recover --roll-back")
    orva.append("numbers.orva", [0.0, 1.0, 2.0], roll_back=True)
    assert np.array_equal(orva.rows("numbers.orva"), [*range(10), 0, 1, 2])
    assert orva.roll_back("numbers.orva") == "nothing"
