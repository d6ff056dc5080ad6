"""What bad input meets: each class and text."""

import io
import os
from pathlib import Path
from typing import Any

import dask.array as da
import dask.dataframe as dd
import fsspec
import numpy as np
import pandas as pd
import pytest

import orva
import orva.dask


def writer(**options: Any) -> orva.File:
    return orva.open("new.orva", "wb", **options)


def closed(file: Any) -> Any:
    file.close()
    return file


def frozen(array: Any) -> Any:
    array.flags.writeable = False
    return array


def told_to_be(dtype: str) -> io.BytesIO:
    was = b'"<f8"'.ljust(40).replace(b" ", b"\n", 1)
    return io.BytesIO(Path("numbers.orva").read_bytes().replace(was, dtype.ljust(40).replace(" ", "\n", 1).encode()))


def two_writers() -> None:
    with orva.open("bytes.orva", "ab"):
        orva.open("bytes.orva", "ab")


class BytesPath:
    def __fspath__(self) -> bytes:
        return b"bytes.orva"


def rows(name: str = "numbers", **options: Any) -> orva.Rows:
    return orva.rows(f"{name}.orva", **options)


def read() -> orva.File:
    return orva.open("bytes.orva")


def to_rows(collection: Any) -> None:
    orva.dask.to_rows(collection, "new.orva")


def frame(**columns: Any) -> Any:
    return dd.from_pandas(pd.DataFrame(columns), npartitions=1)


OVERLAPPING = np.dtype({"names": ["a", "b"], "formats": ["<i4", "<i4"], "offsets": [0, 2]})
UNSUPPORTED = io.UnsupportedOperation
# Class, text, and the calls that end so.
BAD: list[tuple[Any, ...]] = [
    # Files.
    (FileNotFoundError, 'cannot read "none.orva".*check the name', lambda: orva.open("none.orva")),
    (FileNotFoundError, "none/new.orva", lambda: orva.open("none/new.orva", "ab")),
    (IsADirectoryError, '"."', lambda: orva.open(".")),
    (OSError, "pipe", lambda: os.mkfifo("pipe") or orva.open("pipe")),
    (FileExistsError, "already exists", lambda: orva.open("bytes.orva", "xb"), lambda: orva.join(["bytes.orva"], "empty")),
    (BlockingIOError, "bytes.orva", two_writers),
    (orva.DamagedFileError, "is empty", lambda: orva.open("empty")),
    (orva.DamagedFileError, "holds no finished compressed part", lambda: orva.rows("other", "u1")),
    (orva.DamagedFileError, "give row0", lambda: orva.open(io.BytesIO(b"x"))),
    (orva.DamagedFileError, "no heading at offset 9", lambda: orva.open("bytes.orva", row0=9)),
    (orva.DamagedFileError, "no block", lambda: orva.recover("other", "new.orva")),
    (orva.DamagedFileError, "a dtype that is none", lambda: orva.rows(told_to_be('"<M8[ns/0]"'))),
    (orva.DamagedFileError, "bad.orva.* is damaged", lambda: orva.open("bad.orva").read(), lambda: rows("bad").search("time", 0, 2)),
    (orva.DamagedFileError, "bad.orva.* is damaged", lambda: orva.to_frame("bad.orva", ["time"]), lambda: rows("bad")["time"]),
    # Paths.
    (ValueError, "embedded null character", lambda: orva.open("a\0b")),
    (TypeError, "a path, str or os.PathLike.* not bytes", lambda: orva.open(b"bytes.orva")),
    (TypeError, "a binary file object, not StringIO", lambda: orva.open(io.StringIO("x"))),
    (TypeError, "a path is str or os.PathLike.* not B", lambda: orva.rows(BytesPath()), lambda: orva.open(io.BytesIO(), "wb")),
    (TypeError, "several paths.*'bytes.orva'", lambda: orva.join("bytes.orva", "new.orva"), lambda: orva.join(b"bytes.orva", "a")),
    (TypeError, "a path is str.* not bytes", lambda: orva.join([b"bytes.orva"], "a"), lambda: orva.join(["bytes.orva"], b"a")),
    (ValueError, "no file to join", lambda: orva.join([], "new.orva")),
    (ValueError, "one of the files", lambda: orva.join(["bytes.orva"], "bytes.orva")),
    # Numbers and options.
    (ValueError, "number of threads", lambda: rows(threads=-1)),
    (ValueError, "threads cannot be 1099511627776", lambda: rows(threads=1 << 40), lambda: writer(threads=1 << 40)),
    (TypeError, "threads is a whole number, not 1.0", lambda: orva.write("new.orva", [1], threads=1.0)),
    (TypeError, "threads is a whole number, not '2'", lambda: orva.verify("bytes.orva", threads="2")),
    (ValueError, "levels of compression are 1 to", lambda: writer(level=0)),
    (TypeError, "level is a whole number", lambda: orva.write("new.orva", [1], level=1.5), lambda: writer(level="1")),
    (ValueError, "level cannot be", lambda: writer(level=1 << 40), lambda: orva.write("new.orva", [1], level=1 << 40)),
    (ValueError, "65,536 to 4,190,208", lambda: writer(block=65_535), lambda: writer(block=0)),
    (TypeError, "block is a whole number, not 1000000.0", lambda: writer(block=1e6)),
    (ValueError, "block cannot be", lambda: orva.write("new.orva", [1], block=1 << 70)),
    (ValueError, "no rows begin at offset 0", lambda: orva.open("bytes.orva", row0=0)),
    (ValueError, "row0 tells of a file that there is", lambda: writer(row0=512)),
    (ValueError, "row0 cannot be", lambda: orva.info("numbers.orva", row0=1 << 64), lambda: orva.open("bytes.orva", row0=-1 << 64)),
    (ValueError, "row0 cannot be", lambda: orva.recover("numbers.orva", "new.orva", row0=1 << 64)),
    (TypeError, "row0 is a whole", lambda: orva.open("bytes.orva", "ab", row0=0.5), lambda: orva.verify("numbers.orva", row0="x")),
    (ValueError, "a mode is 'rb'.*not 'r\\+b'", lambda: orva.open("bytes.orva", "r+b")),
    (ValueError, "'raise' or 'mask'", lambda: rows(damaged="drop")),
    (TypeError, "called with two numbers, and 0 cannot", lambda: orva.verify("bytes.orva", progress=0)),
    (TypeError, "cannot be called", lambda: orva.join(["bytes.orva"], "a", progress=""), lambda: orva.recover("bytes.orva", "a", progress=0)),
    # Streams.
    (UNSUPPORTED, "fileno", lambda: read().fileno()),
    (UNSUPPORTED, "truncate", lambda: read().truncate(), lambda: writer().truncate(0)),
    (UNSUPPORTED, "write", lambda: read().write(b"x")),
    (UNSUPPORTED, "read", lambda: writer().read(), lambda: orva.open(open("pipe", "wb"))),
    (UNSUPPORTED, "seek", lambda: writer().seek(0)),
    (ValueError, "negative seek position -1", lambda: read().seek(-10, 2)),
    (TypeError, "cannot be interpreted as an integer", lambda: read().read(1.5), lambda: read().seek(0.5)),
    (TypeError, "writable.*'bytes'", lambda: read().readinto(b"12")),
    (TypeError, "in one piece", lambda: read().readinto(np.zeros(4, "u1")[::2])),
    (TypeError, "bytes-like object.*'str'", lambda: writer().write("text")),
    (TypeError, "a writer cannot be pickled", lambda: writer().__reduce__()),
    (ValueError, "closed file", lambda: closed(read()).read(1), lambda: closed(read()).tell(), lambda: closed(read()).__reduce__()),
    (ValueError, "closed file", lambda: closed(rows())[0], lambda: closed(rows()).iter_chunks(), lambda: closed(rows()).__enter__()),
    # Rows.
    (ValueError, "does not say of what dtype", lambda: rows("bytes")),
    (ValueError, "9 bytes are no whole number.* of 2", lambda: rows("bytes", dtype="i2")),
    (ValueError, "rows of 21 bytes.*int64 has 8", lambda: rows("trades", dtype="i8")),
    (ValueError, "no bytes that a file", lambda: rows(dtype=[("a", object)]), lambda: orva.write("new.orva", [None])),
    (ValueError, "of no axis", lambda: orva.write("new.orva", 3.0)),
    (ValueError, "have no bytes", lambda: orva.write("new.orva", np.zeros((3, 0))), lambda: rows("bytes", dtype="V0")),
    (ValueError, "overlap", lambda: orva.write("new.orva", np.zeros(2, OVERLAPPING))),
    (ValueError, "masked have no values", lambda: orva.write("new.orva", rows("bad", damaged="mask"))),
    (ValueError, "rows of float64, not of int64", lambda: orva.append("numbers.orva", [1])),
    (ValueError, "not filled by rows of float64", lambda: orva.append("bytes.orva", [1.0])),
    (ValueError, "written to", lambda: rows().read_into(frozen(np.zeros(2)))),
    (ValueError, "in one piece", lambda: rows().read_into(np.zeros(4)[::2])),
    (ValueError, "float64.*of that dtype", lambda: rows().read_into(np.zeros(2, "i8")), lambda: rows().read_into(np.zeros(2, ">f8"))),
    (ValueError, "of that dtype", lambda: rows().read_into(np.zeros(())), lambda: rows().read_into([1.0])),
    (ValueError, "count from 0", lambda: rows().read_into(np.zeros(2), -1)),
    (ValueError, "1 row or more", lambda: rows().iter_chunks(0)),
    (ValueError, "1 range or more", lambda: rows().splits(0), lambda: rows().splits(-1 << 70)),
    (ValueError, "no field 'nope'", lambda: rows("trades").search("nope", 1, 2), lambda: orva.to_frame("trades.orva", ["nope"])),
    (ValueError, "have no field", lambda: rows("trades").search(0, 1, 2), lambda: rows().search("a", 1, 2)),
    (ValueError, "are no keys", lambda: rows("trades").search(None, 1, 2), lambda: rows("trades").search("flags", 1, 2)),
    (ValueError, "no fields to be columns", lambda: orva.to_frame("numbers.orva")),
    (ValueError, "'flags'.*is no column", lambda: orva.to_frame("trades.orva")),
    (TypeError, "a list of names, not 'time'", lambda: orva.to_frame("trades.orva", "time")),
    # Engines.
    (UNSUPPORTED, "only reads", lambda: fsspec.filesystem("orva").open("bytes.orva", "wb")),
    (orva.DamagedFileError, "other", lambda: fsspec.filesystem("orva").open("other")),
    (FileNotFoundError, "none.orva", lambda: fsspec.filesystem("orva").open("none.orva")),
    (ValueError, "opens one file", lambda: fsspec.open_files(["orva::file://other", "orva::file://empty"])),
    (ValueError, "no file to read", lambda: orva.dask.from_rows([])),
    (ValueError, "numbers.orva\" has rows of float64", lambda: orva.dask.from_rows(["trades.orva", "numbers.orva"])),
    (ValueError, "1 byte or more", lambda: orva.dask.from_rows("numbers.orva", partition_bytes=0)),
    (TypeError, "several paths", lambda: orva.dask.from_rows(b"numbers.orva"), lambda: orva.dask.from_rows(None)),
    (ValueError, "no bytes that a file", lambda: to_rows(frame(s=["a", "b"]))),
    (ValueError, "its collection is of", lambda: to_rows(da.ones(4, chunks=2).map_blocks(lambda x: x > 0, dtype="f8"))),
    (TypeError, "rows come from a dask", lambda: to_rows(da.ones(4).sum()), lambda: to_rows(np.ones(4)), lambda: to_rows(frame(s=[1]).s)),
]


@pytest.mark.parametrize("kind, text, call", [(*row[:2], call) for row in BAD for call in row[2:]])
@pytest.mark.filterwarnings("ignore::ResourceWarning")
def test_bad_input(here: Path, call: Any, kind: type[BaseException], text: str) -> None:
    before = sorted(os.listdir())
    with pytest.raises(kind, match=text) as caught:
        call()
    assert type(caught.value) is kind
    if isinstance(caught.value, OSError) and kind is not UNSUPPORTED:
        assert caught.value.errno and caught.value.filename
    del caught  # and with it what the failing call has made
    assert sorted({*os.listdir()} - {"pipe"}) == before, "what failed has left something behind"
