"""The dtype in a file's dictionary part: text of 512 bytes, or a multiple of them.

orva dictionary 1 row0=0000000512       where the rows begin, in ten digits
dtype=[["time", "<i8"]]                 numpy.lib.format.dtype_to_descr as JSON, byte orders explicit
(blanks, then a line feed)
"""

from __future__ import annotations

import json
import re
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.lib.format import descr_to_dtype, dtype_to_descr

from . import _orva
from ._errors import DamagedFileError

if TYPE_CHECKING:
    import numpy.typing as npt

_FIRST = "orva dictionary 1 row0="
_STEP = 512
_LONGEST = 1 << 20
_PARTS = range(_STEP, _LONGEST + 1, _STEP)  # parts of other lengths are other programs'
# The strings that dtype_to_descr makes of dtypes without fields. numpy accepts more, and some of that ends the process.
_PLAIN = re.compile(r"[<>|=][?a-zA-Z]\d*(\[\d*[a-zA-Z]+\])?")


def checked(dtype: npt.DTypeLike) -> np.dtype[Any]:
    """The dtype, if its values are nothing but their bytes; else ValueError."""
    made = np.dtype(dtype)
    if made.hasobject:
        of = ", ".join(repr(name) for name, (of, *_) in (made.fields or {}).items() if of.hasobject)
        raise ValueError(
            f"values {f'of {of} ' if of else ''}are Python objects, which a file cannot hold: convert them with astype, such"
            " as 'f8' for Int64 with missing values, times with a zone with tz_convert(None), or texts with column_dtypes of"
            " to_records, such as 'S4'"
        )
    if made.itemsize == 0:
        raise ValueError(f"expected a dtype of at least one byte, got {made}")
    return made


def to_dictionary(dtype: np.dtype[Any]) -> bytes:
    try:
        descr: Any = dtype_to_descr(dtype)  # type: ignore[no-untyped-call]
    except ValueError as error:
        raise ValueError(f"{error}: numpy.lib.recfunctions.repack_fields puts the fields of an array in order") from None
    if dtype.subdtype is not None:
        descr = (dtype_to_descr(dtype.subdtype[0]), dtype.subdtype[1])  # type: ignore[no-untyped-call]
    line = "dtype=" + json.dumps(descr) + "\n"
    first = len(_FIRST) + 11
    size = -(-(first + len(line) + 1) // _STEP) * _STEP
    if size > _LONGEST:
        raise ValueError(f"the description of the dtype takes {size:,} bytes, more than the limit of {_LONGEST:,}")
    text = f"{_FIRST}{size:010d}\n{line}"
    return (text.ljust(size - 1) + "\n").encode("ascii")


def _tuples(descr: Any) -> Any:
    """Restores the tuples that JSON made lists: each field, shape and (dtype, shape). A list of fields stays a list."""
    if not isinstance(descr, list):
        if not _PLAIN.fullmatch(descr):
            raise ValueError(f"{descr!r} does not describe a dtype")
        return descr
    if len(descr) == 2 and isinstance(descr[1], list) and all(isinstance(n, int) for n in descr[1]):
        return _tuples(descr[0]), tuple(descr[1])
    return [
        (tuple(field[0]) if isinstance(field[0], list) else field[0], _tuples(field[1]), *map(tuple, field[2:]))
        for field in descr
    ]


def of_dictionary(part: bytes, path: str, row0: int | None) -> np.dtype[Any] | None:
    """The dtype that a dictionary part states for the rows after it, or None. Its first line says where these begin: a
    part that holds a whole file states that file's dtype, not that of the rows at `row0`."""
    lines = part.decode("utf-8", "replace").split("\n", 2)
    begin = re.match(_FIRST + "([0-9]{10})", lines[0])
    if len(lines) < 3 or begin is None or not lines[1].startswith("dtype="):
        return None
    if int(begin[1]) not in _PARTS or row0 not in (None, int(begin[1])):
        return None
    try:
        return checked(descr_to_dtype(_tuples(json.loads(lines[1][6:]))))  # type: ignore[no-untyped-call]
    except (ValueError, TypeError, KeyError, IndexError, RecursionError) as error:
        raise DamagedFileError(f'"{path}": damaged: its dtype is invalid: {error}', path) from None


def of_reader(reader: _orva.Reader, path: str) -> np.dtype[Any] | None:
    return of_dictionary(reader.dictionary(), path, reader.row0) if reader.row0 in _PARTS else None


def of_file(path: str, row0: int | None) -> np.dtype[Any] | None:
    """The dtype of a file, also while an append is at work, when no reader can open it."""
    with open(path, "rb") as file:
        return of_dictionary(file.read(_LONGEST), path, row0)
