"""What bad input meets: each class and text."""

import io
import os
from pathlib import Path
from typing import Any, Callable

import numpy as np
import pytest
from conftest import ROWS

import orva


def writer(**options: Any) -> orva.File:
    return orva.open("new.orva", "wb", **options)


def closed(mode: Any) -> orva.File:
    file = orva.open("bytes.orva" if mode == "rb" else "new.orva", mode)
    file.close()
    return file


def closed_rows() -> orva.Rows:
    with orva.rows("trades.orva") as rows:
        return rows


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


OVERLAPPING = np.dtype({"names": ["a", "b"], "formats": ["<i4", "<i4"], "offsets": [0, 2]})
UNSUPPORTED = io.UnsupportedOperation
BAD: dict[str, tuple[Callable[[], Any], type[BaseException], str]] = {
    "missing": (lambda: orva.open("none.orva"), FileNotFoundError, 'cannot read "none.orva".*check the name'),
    "in a missing directory": (lambda: orva.open("none/new.orva", "ab"), FileNotFoundError, "none/new.orva"),
    "a directory": (lambda: orva.open("."), IsADirectoryError, '"."'),
    "a pipe": (lambda: os.mkfifo("pipe") or orva.open("pipe"), OSError, "pipe"),
    "empty": (lambda: orva.open("empty"), orva.DamagedFileError, "is empty"),
    "of another kind": (lambda: orva.rows("other", "u1"), orva.DamagedFileError, "holds no finished compressed part"),
    "an object of another kind": (lambda: orva.open(io.BytesIO(b"x")), orva.DamagedFileError, "give row0"),
    "text for bytes": (lambda: orva.open(io.StringIO("x")), TypeError, "a binary file object, not StringIO"),
    "an object to write to, for reading": (lambda: orva.open(open("pipe", "wb")), UNSUPPORTED, "not readable"),
    "a path of bytes": (lambda: orva.rows(BytesPath()), TypeError, "not BytesPath"),
    "a name for names": (lambda: orva.join("bytes.orva", "new.orva"), TypeError, "several paths.*'bytes.orva'"),
    "bytes among names": (lambda: orva.join([b"bytes.orva"], "new.orva"), TypeError, "a path is str.* not bytes"),
    "a name with a zero": (lambda: orva.open("a\0b"), ValueError, "embedded null character"),
    "bytes for a path": (lambda: orva.open(b"bytes.orva"), TypeError, "from a path, str or os.PathLike.* not bytes"),
    "an object to write to": (lambda: orva.open(io.BytesIO(), "wb"), TypeError, "BytesIO"),
    "no such mode": (lambda: orva.open("bytes.orva", "r+b"), ValueError, "a mode is 'rb'.*not 'r\\+b'"),
    "a name that is taken": (lambda: orva.open("bytes.orva", "xb"), FileExistsError, "already exists"),
    "another writer": (two_writers, BlockingIOError, "bytes.orva"),
    "negative threads": (lambda: orva.rows("trades.orva", threads=-1), ValueError, "number of threads"),
    "threads without end": (lambda: orva.rows("trades.orva", threads=1 << 40), ValueError, "threads cannot be 1099511627776"),
    "threads of a writer": (lambda: writer(threads=1 << 40), ValueError, "threads cannot be"),
    "threads to write": (lambda: orva.write("new.orva", [1], threads=1.0), TypeError, "threads is a whole number, not 1.0"),
    "threads to verify": (lambda: orva.verify("bytes.orva", threads="2"), TypeError, "threads is a whole number, not '2'"),
    "level in parts": (lambda: orva.write("new.orva", [1], level=1.5), TypeError, "level is a whole number"),
    "level beyond all": (lambda: writer(level=1 << 40), ValueError, "level cannot be"),
    "block in parts": (lambda: writer(block=1e6), TypeError, "block is a whole number, not 1000000.0"),
    "block beyond all": (lambda: orva.write("new.orva", [1], block=1 << 70), ValueError, "block cannot be"),
    "row0 beyond all": (lambda: orva.open("bytes.orva", row0=1 << 64), ValueError, "row0 cannot be 18446744073709551616"),
    "row0 to append": (lambda: orva.open("bytes.orva", "ab", row0=0.5), TypeError, "row0 is a whole number"),
    "row0 to inform": (lambda: orva.info("bytes.orva", row0=-1 << 64), ValueError, "row0 cannot be"),
    "row0 to verify": (lambda: orva.verify("bytes.orva", row0="x"), TypeError, "row0 is a whole number"),
    "row0 to recover": (lambda: orva.recover("bytes.orva", "new.orva", row0=1 << 64), ValueError, "row0 cannot be"),
    "read in parts": (lambda: orva.open("bytes.orva").read(1.5), TypeError, "cannot be interpreted as an integer"),
    "progress to nobody": (lambda: orva.verify("bytes.orva", progress=3), TypeError, "called with two numbers, and 3"),
    "join to nobody": (lambda: orva.join(["bytes.orva"], "new.orva", progress=""), TypeError, "cannot be called"),
    "recover to nobody": (lambda: orva.recover("bytes.orva", "new.orva", progress=0), TypeError, "cannot be called"),
    "level 0": (lambda: writer(level=0), ValueError, "levels of compression are 1 to"),
    "block too short": (lambda: writer(block=65_535), ValueError, "65,536 to 4,190,208"),
    "block of no bytes": (lambda: writer(block=0), ValueError, "65,536 to 4,190,208"),
    "row0 below 1": (lambda: orva.open("bytes.orva", row0=0), ValueError, "no rows begin at offset 0"),
    "row0 elsewhere": (lambda: orva.open("bytes.orva", row0=9), orva.DamagedFileError, "no heading at offset 9"),
    "row0 of a new file": (lambda: writer(row0=512), ValueError, "row0"),
    "no descriptor": (lambda: orva.open("bytes.orva").fileno(), UNSUPPORTED, "fileno"),
    "write to a reader": (lambda: orva.open("bytes.orva").write(b"x"), UNSUPPORTED, "write"),
    "read from a writer": (lambda: writer().read(), UNSUPPORTED, "read"),
    "seek in a writer": (lambda: writer().seek(0), UNSUPPORTED, "seek"),
    "seek before the rows": (lambda: orva.open("bytes.orva").seek(-10, 2), ValueError, "negative seek position -1"),
    "fill what is read-only": (lambda: orva.open("bytes.orva").readinto(b"12"), TypeError, "writable.*'bytes'"),
    "fill pieces": (lambda: orva.open("bytes.orva").readinto(np.zeros(4, "u1")[::2]), TypeError, "in one piece"),
    "write text": (lambda: writer().write("text"), TypeError, "bytes-like object.*'str'"),
    "pickle a writer": (lambda: writer().__reduce__(), TypeError, "a writer cannot be pickled"),
    "no dtype": (lambda: orva.rows("bytes.orva"), ValueError, "does not say of what dtype"),
    "rows that do not divide": (lambda: orva.rows("bytes.orva", "i2"), ValueError, "9 bytes are no whole number.* of 2"),
    "dtype of another length": (lambda: orva.rows("trades.orva", "i8"), ValueError, "rows of 21 bytes.*int64 has 8"),
    "dtype of objects": (lambda: orva.rows("trades.orva", [("a", object)]), ValueError, "no bytes that a file"),
    "damaged in words": (lambda: orva.rows("trades.orva", damaged="drop"), ValueError, "'raise' or 'mask'"),
    "write objects": (lambda: orva.write("new.orva", [None]), ValueError, "no bytes that a file"),
    "write no axis": (lambda: orva.write("new.orva", 3.0), ValueError, "of no axis"),
    "write overlapping": (lambda: orva.write("new.orva", np.zeros(2, OVERLAPPING)), ValueError, "overlap"),
    "write masked": (lambda: orva.write("new.orva", orva.rows("bad.orva", damaged="mask")), ValueError, "masked have no values"),
    "write empty rows": (lambda: orva.write("new.orva", np.zeros((3, 0))), ValueError, "have no bytes"),
    "append another dtype": (lambda: orva.append("numbers.orva", [1]), ValueError, "rows of float64, not of int64"),
    "append to a remainder": (lambda: orva.append("bytes.orva", [1.0]), ValueError, "not filled by rows of float64"),
    "into read-only": (lambda: orva.rows("numbers.orva").read_into(frozen(np.zeros(2))), ValueError, "written to"),
    "into pieces": (lambda: orva.rows("numbers.orva").read_into(np.zeros(4)[::2]), ValueError, "in one piece"),
    "into another dtype": (lambda: orva.rows("numbers.orva").read_into(np.zeros(2, "i8")), ValueError, "float64"),
    "into no axis": (lambda: orva.rows("numbers.orva").read_into(np.zeros(())), ValueError, "of that dtype"),
    "into the other byte order": (lambda: orva.rows("numbers.orva").read_into(np.zeros(2, ">f8")), ValueError, "of that dtype"),
    "into, from -1": (lambda: orva.rows("numbers.orva").read_into(np.zeros(2), -1), ValueError, "count from 0"),
    "chunks of no rows": (lambda: orva.rows("numbers.orva").iter_chunks(0), ValueError, "1 row or more"),
    "no splits": (lambda: orva.rows("numbers.orva").splits(0), ValueError, "1 range or more"),
    "no splits at all": (lambda: orva.rows("numbers.orva").splits(-1 << 70), ValueError, "1 range or more"),
    "search no field": (lambda: orva.rows("trades.orva").search("nope", 1, 2), ValueError, "no field 'nope'"),
    "search by number": (lambda: orva.rows("trades.orva").search(0, 1, 2), ValueError, "no field 0"),
    "search a field of none": (lambda: orva.rows("numbers.orva").search("a", 1, 2), ValueError, "float64 have no field 'a'"),
    "search rows of fields": (lambda: orva.rows("trades.orva").search(None, 1, 2), ValueError, "no keys: name a field"),
    "search arrays": (lambda: orva.rows("trades.orva").search("flags", 1, 2), ValueError, "are no keys"),
    "search damage": (lambda: orva.rows("bad.orva").search("time", 0, 2), orva.DamagedFileError, "bad.orva.* is damaged"),
    "frame of damage": (lambda: orva.to_frame("bad.orva", ["time"]), orva.DamagedFileError, "bad.orva.* is damaged"),
    "frame of letters": (lambda: orva.to_frame("trades.orva", "time"), TypeError, "a list of names, not 'time'"),
    "frame without fields": (lambda: orva.to_frame("numbers.orva"), ValueError, "no fields to be columns"),
    "frame of no such column": (lambda: orva.to_frame("trades.orva", ["nope"]), ValueError, "no field 'nope'"),
    "frame of arrays": (lambda: orva.to_frame("trades.orva"), ValueError, "'flags'.*is no column"),
    "join nothing": (lambda: orva.join([], "new.orva"), ValueError, "no file to join"),
    "join into itself": (lambda: orva.join(["bytes.orva"], "bytes.orva"), ValueError, "one of the files"),
    "recover nothing": (lambda: orva.recover("other", "new.orva"), orva.DamagedFileError, "no block"),
    "a dtype that ends numpy": (lambda: orva.rows(told_to_be('"<M8[ns/0]"')), orva.DamagedFileError, "a dtype that is none"),
    "a damaged block": (lambda: orva.open("bad.orva").read(), orva.DamagedFileError, "bad.orva.* is damaged"),
    "read, closed": (lambda: closed("rb").read(1), ValueError, "closed file"),
    "tell, closed": (lambda: closed("rb").tell(), ValueError, "closed file"),
    "write, closed": (lambda: closed("wb").write(b""), ValueError, "closed file"),
    "row, closed": (lambda: closed_rows()[0], ValueError, "closed file"),
    "chunks, closed": (lambda: closed_rows().iter_chunks(), ValueError, "closed file"),
}


@pytest.mark.parametrize("call, kind, text", BAD.values(), ids=BAD)
@pytest.mark.filterwarnings("ignore::ResourceWarning")
def test_bad_input(here: Path, call: Any, kind: type[BaseException], text: str) -> None:
    before = sorted(os.listdir())
    with pytest.raises(kind, match=text) as caught:
        call()
    assert type(caught.value) is kind
    if isinstance(caught.value, OSError) and kind is not UNSUPPORTED:
        assert caught.value.errno and caught.value.filename
    del caught  # and with it what the failing call has made
    left = set(os.listdir()) - {"pipe", *([] if "closed" not in text else ["new.orva"])}
    assert left == set(before), "what failed has left something behind"
