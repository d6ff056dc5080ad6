"""orva.rows against numpy's own arrays, and orva.write, append and to_frame."""

import os
from pathlib import Path
from typing import Any

import numpy as np
import pytest

import orva

TRADE = np.dtype([("time", "<i8"), ("price", "<f8"), ("flags", "u1", (3,)), ("name", "S2")])  # 21 bytes
BLOCK = 65_536


def trades(count: int) -> Any:
    rows = np.zeros(count, TRADE)
    rows["time"] = np.arange(count)
    rows["price"] = np.random.default_rng(1).normal(size=count)
    rows["name"] = b"ab"
    return rows


ROWS = trades(20_000)  # seven blocks, whose borders lie in rows


@pytest.fixture(scope="module")
def path(tmp_path_factory: pytest.TempPathFactory) -> str:
    name = str(tmp_path_factory.mktemp("rows") / "trades.orva")
    orva.write(name, ROWS, block=BLOCK)
    return name


KEYS = {
    "first": 0,
    "last": -1,
    "numpy's int": np.int32(7),
    "all": slice(None),
    "across a border": slice(3_000, 3_200),
    "backwards": slice(None, None, -1),
    "big steps back": slice(19_000, 5, -3_121),
    "nothing": slice(9, 9),
    "behind the end": slice(19_990, 30_000),
    "unsorted, negative, twice": [5, -1, 19_999, 5, 3_120],
    "unsigned": np.array([3, 2], np.uint16),
    "no ints": [],
    "ints of two axes": np.arange(6).reshape(2, 3) * 3_000,
    "bools": ROWS["time"] % 777 == 3,
    "field": "price",
    "field of arrays": "flags",
    "two fields": ["name", "time"],
    "tuple": (slice(5, 7),),
    "tuple of int": (5,),
    "tuple of ints": ([1, 2],),
    "new axis behind": (slice(5, 7), None),
    "new axis": None,
    "ellipsis": ...,
    "empty tuple": (),
    "one bool": True,
    "float": 1.5,
    "floats": [1.5],
    "no such field": "nope",
    "beyond": 20_000,
    "before": -20_001,
    "ints beyond": [1, 20_000],
    "bools too few": [True, False],
    "too many": (1, 2),
}


def outcome(array: Any, key: Any) -> Any:
    try:
        return array[key]
    except (IndexError, ValueError, TypeError) as error:
        return type(error), str(error)


@pytest.mark.parametrize("key", KEYS.values(), ids=KEYS)
def test_keys_are_numpys(path: str, key: Any) -> None:
    with orva.rows(path) as rows:
        got, wanted = outcome(rows, key), outcome(ROWS, key)
    assert type(got) is type(wanted)
    if isinstance(wanted, tuple):
        assert got == wanted
    else:
        assert got.dtype == wanted.dtype
        assert np.array_equal(got, wanted)
