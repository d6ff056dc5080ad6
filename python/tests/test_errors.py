# The class and text of the error for each bad input.

import io
import os
from functools import partial
from pathlib import Path
from typing import Any

import dask.array as da
import dask.dataframe as dd
import fsspec
import numpy as np
import pandas as pd
import pytest

import orva.dask

read = partial(orva.open, "bytes.orva")
writer = partial(orva.open, "new.orva", "wb")
write = partial(orva.write, "new.orva")
to_rows = partial(orva.dask.to_rows, path="new.orva")
rows = partial(orva.rows, "numbers.orva")
trades = partial(orva.rows, "trades.orva")


def closed(file: Any) -> Any:
    file.close()
    return file


# The memory that a failed read was to fill, taken from its traceback.
def of_a_failed_read() -> bytes:
    waiting = type("Waiting", (io.BytesIO,), {"readinto": lambda file, to: None})(b"x")
    return bytes(pytest.raises(BlockingIOError, orva.open, waiting).traceback[-1].locals["to"])


WORK = [partial(orva.verify, "bad.orva"), partial(orva.recover, "bad.orva", "a"), partial(orva.join, ["bad.orva"], "a")]
TEXTS = pd.DataFrame({"text": ["a", "b"], "of": 1, "n": pd.array([1, None], "Int64")})
OBJECTS = dd.from_pandas(TEXTS, npartitions=1)
# Class, text, and the calls that raise it.
BAD: list[tuple[Any, ...]] = [
    # Files.
    (FileExistsError, "already exists", lambda: orva.open("bytes.orva", "xb"), lambda: orva.join(["bytes.orva"], "bad.orva")),
    (orva.DamagedFileError, "specify row0", lambda: orva.open(io.BytesIO(b"x"))),
    (orva.DamagedFileError, "its dtype is invalid", lambda: orva.rows(io.BytesIO(Path("numbers.orva").read_bytes().replace(b'"<f8"\n      ', b'"<M8[ns/0]"\n')))),
    (orva.DamagedFileError, '"bad.orva": damaged: ', lambda: orva.open("bad.orva").read(), lambda: orva.rows(open("bad.orva", "rb"))["time"], lambda: orva.rows("bad.orva").search("time", 0, 2), lambda: orva.to_frame("bad.orva", ["time"])),
    (orva.FileChangedError, "numbers.orva.* has changed since", lambda: [rows(), orva.append("numbers.orva", [1.0])][0][:]),
    (ValueError, "released memoryview", of_a_failed_read),
    # Paths.
    (ValueError, "embedded null character", lambda: orva.open("a\0b")),
    (TypeError, "a path .*os.PathLike.* not (bytes|StringIO|DirEntry)", lambda: orva.open(b"a"), lambda: orva.open(io.StringIO()), lambda: orva.rows(next(os.scandir(b"."))), lambda: orva.join([b"a"], "a")),
    (TypeError, "not OpenFile: open it first", lambda: orva.rows(fsspec.open("numbers.orva"))),
    (TypeError, "a list of paths, not .*(bytes.orva|None)", lambda: orva.join(b"bytes.orva", "a"), lambda: orva.dask.from_rows(None)),
    # Options.
    (ValueError, "row0 applies only to an existing file", lambda: writer(row0=512)),
    (ValueError, "mode must be 'rb'.*not 'r\\+b'", lambda: orva.open("bytes.orva", "r+b")),
    (ValueError, "'raise' or 'mask'", lambda: rows(damaged="drop")),
    (TypeError, "progress must be callable, not 0", *(partial(work, progress=0) for work in WORK)),
    (ZeroDivisionError, "", *(partial(work, progress=lambda done, total: done // 0) for work in WORK)),
    # Streams.
    (io.UnsupportedOperation, "^(write|truncate|read|seek)$", lambda: read().write(b"x"), lambda: read().truncate(), lambda: writer().read(), lambda: writer().seek(0)),
    (io.UnsupportedOperation, "not readable", lambda: orva.open(io.BufferedWriter(io.BytesIO()))),
    (ValueError, "negative seek position -1", lambda: read().seek(-10, 2)),
    (TypeError, "cannot be interpreted as an integer", lambda: read().read(1.5), lambda: read().seek(0.5)),
    (TypeError, "writable contiguous", lambda: read().readinto(b"12"), lambda: read().readinto(np.zeros(4, "u1")[::2])),
    (TypeError, "a writer cannot be pickled", lambda: writer().__reduce__()),
    (ValueError, "closed file", lambda: closed(read()).read(1), lambda: closed(read()).tell(), lambda: closed(read()).__reduce__(), lambda: closed(rows())[0], lambda: closed(rows()).iter_chunks(), lambda: closed(rows()).__enter__(), lambda: orva.write("numbers.orva", []) or closed(rows()).search(None, 0, 1)),
    # Rows.
    (ValueError, "rows of 21 bytes.*int64 has 8", lambda: trades("i8")),
    (ValueError, "^values are Python objects, .*tz_convert", lambda: write([None]), lambda: rows(object)),
    (ValueError, "'text', 'n' are Python objects, .*astype", lambda: write(TEXTS), lambda: to_rows(OBJECTS), lambda: rows([("text", object), ("n", object)])),
    (ValueError, "must be unique strings", *(partial(write, pd.DataFrame([[1] * len(names)], columns=names)) for names in ([0, 1], ["a", "a"]))),
    (ValueError, r"reset_index\(\) makes it a column", *(partial(write, TEXTS[["of"]].set_index(index)) for index in (pd.Index([2, 3], name="id"), pd.date_range("2024", periods=2), [[1, 2], [3, 4]]))),
    (TypeError, "pandas frame, not a .*(Table|Frame): to_pandas", lambda: write(type("Table", (list,), {"columns": None})([[1]])), lambda: write(OBJECTS[["of"]])),
    (ValueError, "at least one (column|byte)", lambda: to_rows(OBJECTS[[]]), lambda: write(pd.DataFrame()), lambda: write(np.zeros((3, 0))), lambda: rows("V0")),
    (ValueError, "at least one axis, not one value of (float|bytes; orva.open writes bytes)$", lambda: write(3.0), lambda: write(b"12")),
    (ValueError, "repack_fields", lambda: write(np.zeros(2, "u1,u2")[["f1", "f0"]])),
    (ValueError, "1,062,912 bytes", lambda: write(np.zeros(1, [(f"{i:0999}", "u1") for i in range(1_050)]))),
    (ValueError, "masked rows have no values", lambda: write(orva.rows("bad.orva", damaged="mask"))),
    (ValueError, r"rows of float64, not of \[\('of', '<i8'\)\]$", lambda: orva.append("numbers.orva", TEXTS[["of"]])),
    (ValueError, "9 bytes of rows(,| are) not a multiple of the (2 of int16|8 of float64)", lambda: orva.rows("bytes.orva", "i2"), lambda: orva.append("bytes.orva", [1.0])),
    (ValueError, "contiguous and writable", lambda: rows().read_into(np.zeros(4)[::2]), lambda: rows().read_into(np.frombuffer(bytes(8)))),
    (ValueError, "must be an array for rows of float64", lambda: rows().read_into(np.zeros(2, ">f8")), lambda: rows().read_into(np.zeros(())), lambda: rows().read_into([1.0])),
    (ValueError, "first must be 0 or more", lambda: rows().read_into(np.zeros(2), -1)),
    (ValueError, "(chunk|ranges|partition_bytes) must be 1 or more", lambda: rows().iter_chunks(0), lambda: rows().splits(-1 << 70), lambda: orva.dask.from_rows("numbers.orva", partition_bytes="0 MiB")),
    (ValueError, "have no field", lambda: trades().search(0, 1, 2), lambda: rows().search("a", 1, 2), lambda: orva.to_frame("trades.orva", ["a"])),
    (TypeError, "'a' cannot be compared with (float64|.S2): expected a numpy.(float64|bytes_)$", lambda: rows().search(None, "a", 1), lambda: trades().search("name", b"a", "a")),
    (ValueError, "cannot be keys", lambda: trades().search(None, 1, 2), lambda: trades().search("flags", 1, 2)),
    (ValueError, "no fields to use as columns", lambda: orva.to_frame("numbers.orva")),
    (ValueError, "'flags'.*cannot be a column", lambda: orva.to_frame("trades.orva")),
    (TypeError, "a list of names, not 'time'", lambda: orva.to_frame("trades.orva", "time")),
    # Engines.
    (io.UnsupportedOperation, "is read-only", lambda: fsspec.filesystem("orva").open("bytes.orva", "wb")),
    (ValueError, "opens one file", lambda: fsspec.filesystem("orva", fo=["a", "b"])),
    (ValueError, "at least one path", lambda: orva.dask.from_rows([])),
    (ValueError, "numbers.orva\" has rows of float64", lambda: orva.dask.from_rows(["trades.orva", "numbers.orva"]), lambda: orva.join(["bytes.orva", "trades.orva", "numbers.orva"], "a")),
    (ValueError, "pass frame=True", lambda: orva.dask.from_rows("trades.orva", columns=["time"])),
    (FileNotFoundError, "no file has such a name: 'no\\*'", lambda: orva.dask.from_rows("no*")),
    (ValueError, "but its collection has", lambda: to_rows(da.ones(4, chunks=2).map_blocks(lambda x: x > 0, dtype="f8"))),
    (TypeError, "expected a dask array .* not a (dask|numpy|pandas)", lambda: to_rows(da.ones(4).sum()), lambda: to_rows(np.ones(4)), lambda: to_rows(OBJECTS.text), lambda: to_rows(TEXTS)),
    (FileExistsError, "remove the directory", lambda: to_rows(da.ones(4), path="taken.orva")),
]
# Numeric options: a number that the library refuses, its error, the first number beyond its types, and the calls.
NUMBERS: dict[str, tuple[Any, ...]] = {
    "threads": (-1, "number of threads", 1 << 31, rows, writer, partial(write, [1]), partial(orva.append, "numbers.orva", [1.0]), partial(orva.verify, "bytes.orva")),
    "level": (0, "level must be 1 to .*, got 0", 1 << 31, writer, partial(write, [1]), partial(orva.append, "numbers.orva", [1.0])),
    "block": (0, "65,536 to 4,190,208", 1 << 63, writer, partial(write, [1]), partial(orva.append, "numbers.orva", [1.0])),
    "row0": (0, "row0 must be 1 or more, got 0", 1 << 63, read, *(partial(work, "bytes.orva") for work in (orva.info, orva.verify, orva.to_frame)), partial(orva.recover, "bytes.orva", "new.orva"), partial(orva.append, "bytes.orva", []), partial(orva.dask.from_rows, "bytes.orva"), partial(orva.join, ["bytes.orva"], "new.orva")),
}
for name, (refused, text, far, *calls) in NUMBERS.items():
    wrong = [(ValueError, text, refused), (ValueError, f"{name} is out of range: {far}", far), (TypeError, f"{name} must be an integer, not 2.0", 2.0)]
    BAD += [(kind, text, *(partial(call, **{name: number}) for call in calls)) for kind, text, number in wrong]


@pytest.mark.parametrize("kind, text, call", [(*row[:2], call) for row in BAD for call in row[2:]])
@pytest.mark.filterwarnings("ignore::ResourceWarning")
def test_bad_input(here: Path, call: Any, kind: type[BaseException], text: str) -> None:
    before = sorted(os.listdir())
    caught = pytest.raises(kind, call)
    assert caught.match(text) and caught.type is kind
    if isinstance(caught.value, OSError) and kind is not io.UnsupportedOperation:
        assert caught.value.errno and caught.value.filename
    del caught  # and what the failing call has made
    assert sorted(os.listdir()) == before, "what failed has left something behind"
