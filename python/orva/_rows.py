"""The rows of a file as an array that is read on demand."""

from __future__ import annotations

import operator
import os
from collections.abc import Iterable, Iterator
from typing import TYPE_CHECKING, Any, Literal

import numpy as np

from . import _dtype
from ._source import Opened, Source

if TYPE_CHECKING:
    import numpy.typing as npt

Lost = list[tuple[int, int]]
_NEAR = 4096  # bytes from row to row below which reading all is faster than reading each
_MOST_SPLITS = (1 << 31) - 1


def _bytes_of(array: npt.NDArray[Any]) -> npt.NDArray[np.uint8]:
    return array.reshape(-1).view(np.uint8)


def _merged(ranges: Iterable[tuple[int, int]]) -> Lost:
    merged: Lost = []
    for first, end in sorted(ranges):
        if merged and first <= merged[-1][1]:
            merged[-1] = merged[-1][0], max(end, merged[-1][1])
        else:
            merged.append((first, end))
    return merged


def _number(key: Any) -> int | None:
    """The key as an int, if it is one; a bool is not, nor is an array of one number."""
    if isinstance(key, (bool, np.bool_, np.ndarray)):
        return None
    try:
        return operator.index(key)
    except TypeError:
        return None


def _exact(number: Any) -> Any:
    """numpy's number as Python's own. numpy compares 64-bit integers as float64 if only one is signed, and so takes
    near ones for equal."""
    return number.item() if isinstance(number, (np.generic, np.ndarray)) and number.dtype.kind in "iuf" else number


def _is_less(stored: Any, key: Any) -> bool:
    try:
        return bool(_exact(stored) < key)
    except TypeError:
        raise TypeError(f"{key!r} cannot be compared with {stored.dtype}: expected a numpy.{type(stored).__name__}") from None


class Rows:
    """The rows of a file as an array of one axis, or of more if rows are arrays themselves; opened by `orva.rows`.

    Keys are those of numpy, along the first axis and after it: an int, a slice, an array of ints or of bools, the name
    of a field. The result is a new array, or one row. Whatever the key, each block that holds wanted rows is inflated
    once; a block is up to 4 MiB of rows.

    dtype, shape, ndim, nbytes: as numpy's, of all rows. lost: with damaged="mask" the lost rows found so far, as
    (first, end), ascending; verify finds all of them.

    Safe on any thread and after a fork; pickles by absolute path. `close` or the end of a `with` statement closes it;
    later use is ValueError. Reading raises OSError, DamagedFileError for a block, and FileChangedError for one that an
    append has rewritten since.
    """

    __module__ = "orva"
    dtype: np.dtype[Any]
    shape: tuple[int, ...]
    ndim: int
    nbytes: int

    def __init__(
        self, path: Source, dtype: npt.DTypeLike, damaged: Literal["raise", "mask"], row0: int | None, threads: int
    ) -> None:
        if damaged not in ("raise", "mask"):
            raise ValueError(f"damaged must be 'raise' or 'mask', not {damaged!r}")
        given = None if dtype is None else _dtype.checked(dtype)
        self._opened = Opened(path, row0, threads)
        self._reader = self._opened.reader
        try:
            row = self._row_of(given)
        except BaseException:
            self.close()
            raise
        self._row, self._mask = row, damaged == "mask"
        self.dtype, within = (row, ()) if row.subdtype is None else row.subdtype
        self.shape = (self._reader.size // row.itemsize, *within)
        self.ndim, self.nbytes = len(self.shape), self._reader.size
        self._lost: set[tuple[int, int]] = set()  # any thread may add to it

    def _row_of(self, given: np.dtype[Any] | None) -> np.dtype[Any]:
        name = f'"{self._opened.name}"'
        if self._reader.swapped:
            raise ValueError(f"{name}: its rows have the other byte order: read their bytes with orva.open")
        try:
            row = _dtype.of_reader(self._reader, self._opened.name)
        except ValueError:
            if given is None:
                raise
            row = None
        if row is not None and given is not None and row.itemsize != given.itemsize:
            raise ValueError(f"{name} has rows of {row.itemsize} bytes ({row}), but {given} has {given.itemsize}")
        row = row if given is None else given
        if row is None:
            raise ValueError(f"{name} does not state the dtype of its rows: pass one")
        if self._reader.size % row.itemsize != 0:
            raise ValueError(f"{name}: its {self._reader.size} bytes of rows are not a multiple of the {row.itemsize} of {row}")
        return row

    def __repr__(self) -> str:
        return f"<orva.Rows {self._opened.name!r} shape={self.shape} dtype={self.dtype}>"

    def __len__(self) -> int:
        return self.shape[0]

    # Reading.

    def _empty(self, count: int) -> npt.NDArray[Any]:
        return np.empty((count, *self.shape[1:]), self.dtype)

    def _noted(self, found: Lost) -> Lost:
        """Notes damaged blocks, which the reader gives in bytes, and returns them as rows. A row across two blocks is
        lost with either."""
        size = self._row.itemsize
        rows = [(begin // size, -(-(begin + length) // size)) for begin, length in found]
        self._lost.update(rows)
        return _merged(rows)

    @property
    def lost(self) -> Lost:
        return _merged(self._lost.copy())

    def _read(self, rows: range | npt.NDArray[np.int64]) -> npt.NDArray[Any]:
        """The rows of a range of step 1, or those with the given numbers, in any order."""
        size, values = self._row.itemsize, self._empty(len(rows))
        found: Lost | None = [] if self._mask else None
        if isinstance(rows, range):
            self._reader.read_at(rows.start * size, _bytes_of(values), found)
        else:
            self._reader.take(rows, size, _bytes_of(values), found)
        if found is None:
            return values
        mask: Any = np.ma.make_mask_none(values.shape, values.dtype)  # type: ignore[no-untyped-call]
        for begin, end in self._noted(found):
            if isinstance(rows, range):
                lost: Any = slice(max(begin - rows.start, 0), max(end - rows.start, 0))
            else:
                lost = (rows >= begin) & (rows < end)
            mask[lost] = np.ones((), mask.dtype)
        return np.ma.masked_array(values, mask)  # type: ignore[no-untyped-call]

    # Keys.

    def _index(self, row: int) -> int:
        if not -len(self) <= row < len(self):
            raise IndexError(f"index {row} is out of bounds for axis 0 with size {len(self)}")
        return row + len(self) if row < 0 else row

    def _slice(self, key: slice) -> npt.NDArray[Any]:
        rows = range(*key.indices(len(self)))
        if not rows or rows.step == 1:
            return self._read(rows or range(0))
        if rows.step < 0:
            return self._slice(slice(rows[-1], rows[0] + 1, -rows.step))[::-1]
        if rows.step * self._row.itemsize <= _NEAR:
            return self._picked(rows)
        return self._read(np.arange(rows.start, rows.stop, rows.step, dtype=np.int64))

    def _picked(self, rows: range, field: Any = ...) -> npt.NDArray[Any]:
        """Rows near each other, or a field of them, copied a piece at a time, so that the rows between them never need
        memory all at once."""
        none = self._read(range(0))[field]  # raises numpy's error for a wrong field
        like: Any = np.ma.zeros if self._mask else np.zeros  # numpy does not copy the padding between fields
        values: npt.NDArray[Any] = like((len(rows), *none.shape[1:]), none.dtype)
        done = 0
        while done < len(rows):  # each piece ends with a wanted row, since the next block may be damaged
            first = rows[done]
            some = range(first, min(self._border(first), rows.stop), rows.step)
            values[done : done + len(some)] = self._read(range(first, some[-1] + 1))[:: rows.step][field]
            done += len(some)
        return values

    def _chosen(self, key: Any) -> npt.NDArray[np.int64] | None:
        """The row numbers of a key of ints or bools; None for any other key."""
        wanted = np.asarray(key)
        if wanted.size == 0 and not isinstance(key, np.ndarray):
            wanted = wanted.astype(np.int64)
        if wanted.dtype.kind == "b" and wanted.ndim == 1:
            if len(wanted) != len(self):
                np.broadcast_to(np.int8(0), len(self))[wanted]  # raises numpy's error
            return np.flatnonzero(wanted)
        if wanted.dtype.kind not in "iu":
            return None
        outside = (wanted < -len(self)) | (wanted >= len(self))
        if outside.any():
            raise IndexError(f"index {wanted[outside][0]} is out of bounds for axis 0 with size {len(self)}")
        return np.where(wanted < 0, wanted.astype(np.int64) + len(self), wanted.astype(np.int64))

    def __getitem__(self, key: Any) -> Any:
        if isinstance(key, str):
            return self._picked(range(len(self)), key)
        first, *rest = (key or (...,)) if isinstance(key, tuple) else (key,)
        here: Any = 0
        if (row := _number(first)) is not None:
            row = self._index(row)
            values = self._read(range(row, row + 1))
        elif isinstance(first, slice):
            values, here = self._slice(first), slice(None)
        elif (chosen := self._chosen(first)) is not None:
            values = self._read(chosen.reshape(-1))
            here = np.arange(chosen.size).reshape(chosen.shape)
            if not rest and chosen.ndim == 1:
                return values
        else:
            np.broadcast_to(self._empty(1)[:1], self.shape)[key]  # raises numpy's error before anything is read
            return self._read(range(len(self)))[key]
        # The rows are in the order of the key; numpy itself applies what the key says of further axes.
        return values if isinstance(key, slice) else values[(here, *rest)]

    def __array__(self, dtype: npt.DTypeLike = None, copy: bool | None = None) -> npt.NDArray[Any]:
        if copy is False:
            raise ValueError("rows in a file cannot become an array without a copy")
        values = self._read(range(len(self)))
        return values if dtype is None else values.astype(dtype, copy=False)

    # In pieces.

    def _border(self, first: int) -> int:
        """The first row that begins at or past the end of as many blocks, from row `first` on, as there are
        threads."""
        at = first * self._row.itemsize
        for _ in range(self._opened.threads or len(os.sched_getaffinity(0))):
            at = self._reader.end_of_block(at)
        return -(-at // self._row.itemsize)

    def iter_chunks(self, rows: int | None = None) -> Iterator[npt.NDArray[Any]]:
        """Arrays of `rows` rows each, the last one of the rest. Without `rows`, each has as many as one block
        holds, or as many blocks as there are threads. ValueError below 1."""
        count = None if rows is None else operator.index(rows)
        if count is not None and count < 1:
            raise ValueError("rows per chunk must be 1 or more")
        self._open()
        return self._chunks(0, len(self), count)

    def _chunks(self, first: int, stop: int, rows: int | None = None) -> Iterator[npt.NDArray[Any]]:
        while first < stop:
            end = min(self._border(first) if rows is None else first + rows, stop)
            yield self._read(range(first, end))
            first = end

    def __iter__(self) -> Iterator[Any]:
        for chunk in self.iter_chunks():
            yield from chunk

    def read_into(self, out: npt.NDArray[Any], first: int = 0) -> int:
        """Fills `out` with the rows from `first` on, as many as there are and fit, and returns their number. `out` must
        be contiguous, writable, and of this dtype and shape after the first axis; else ValueError, as for a `first`
        below 0."""
        if not isinstance(out, np.ndarray) or out.dtype != self.dtype or out.ndim == 0 or out.shape[1:] != self.shape[1:]:
            raise ValueError(f"out must be an array for rows of {self._row}")
        if not out.flags.writeable or not out.flags.c_contiguous:
            raise ValueError("out must be contiguous and writable")
        if operator.index(first) < 0:
            raise ValueError("first must be 0 or more")
        first = min(operator.index(first), len(self))
        count = min(len(out), len(self) - first)
        found: Lost = []
        self._reader.read_at(first * self._row.itemsize, _bytes_of(out[:count]), found if self._mask else None)
        self._noted(found)
        return count

    def search(self, field: str | None, low: Any, high: Any) -> slice:
        """The slice of the rows whose key is at least `low` and below `high`; rows must ascend by it. `field` names the
        field of the keys; with None the rows are keys themselves. Keys are compared as numpy's scalars are: dates with
        numpy.datetime64 or pandas.Timestamp, bytes with bytes. Inflates about log2(blocks) blocks, up to three times as
        many if much is found; rows[rows.search(...)] reads the rows.

        DamagedFileError if a row that it looks at is lost. With damaged="mask" the sound rows around decide, and lost
        rows that may match are among those found. ValueError for a field that does not exist or holds no single value.
        """
        self._open()
        self._check_key(field)
        value = self._empty(1)

        def is_below(row: int, key: Any, aside: int) -> bool:
            """Whether the key of `row` is below `key`. For a lost row the next sound one decides, after it if `aside`
            is 1, before it if -1; if there is none, the row counts as a possible match."""
            while 0 <= row < len(self):
                found: Lost | None = [] if self._mask else None
                self._reader.read_at(row * self._row.itemsize, _bytes_of(value), found)
                if not found:
                    return _is_less(value[0] if field is None else value[field][0], key)
                begin, end = self._noted(found)[0]
                row = end if aside > 0 else begin - 1
            return aside < 0

        def bound(key: Any, first: int, end: int, aside: int) -> int:
            while first < end:
                middle = (first + end) // 2
                first, end = (middle + 1, end) if is_below(middle, key, aside) else (first, middle)
            return first

        low, high = _exact(low), _exact(high)
        first = bound(low, 0, len(self), 1)
        # The other end is usually near, in the same block or the next ones.
        near, step = first, 1
        while near + step < len(self) and is_below(near + step, high, -1):
            near, step = near + step, 2 * step
        return slice(first, bound(high, near, min(near + step, len(self)), -1))

    def _check_key(self, field: str | None) -> None:
        if field is not None and not (isinstance(field, str) and field in (self.dtype.fields or {})):
            raise ValueError(f"rows of {self._row} have no field {field!r}")
        key = self._row if field is None else self.dtype[field]
        if key.names is not None or key.subdtype is not None:
            raise ValueError(f"values of {key} cannot be keys: name a field that holds one number or text")

    def splits(self, count: int) -> list[slice]:
        """Divides all rows into at most `count` consecutive slices of about equal length. Each begins with a block as
        far as rows allow, so that hardly any block is inflated for two of them. ValueError below 1."""
        size = self._row.itemsize
        ranges = self._reader.splits(min(max(operator.index(count), 0), _MOST_SPLITS), size)
        return [slice(begin // size, (begin + length) // size) for begin, length in ranges]

    def _open(self) -> None:
        if self._reader.closed:
            raise ValueError("I/O operation on closed file")

    def _ipython_key_completions_(self) -> list[str]:
        return list(self.dtype.names or ())

    def close(self) -> None:
        """Closes the file; calls under way keep it open until they end. May be called again."""
        self._reader.close()

    def __enter__(self) -> Rows:
        self._open()
        return self

    def __exit__(self, *raised: object) -> None:
        self.close()

    def __reduce__(self) -> Any:
        self._open()
        damaged = "mask" if self._mask else "raise"
        return Rows, (self._opened.again, self._row, damaged, self._opened.row0, self._opened.threads)


def rows(
    path: Source,
    dtype: npt.DTypeLike = None,
    *,
    damaged: Literal["raise", "mask"] = "raise",
    row0: int | None = None,
    threads: int = 1,
) -> Rows:
    """The rows of a finished file, read on demand.

    path: a path, or a seekable binary file object, which is read under a lock.
    dtype: of a row; by default the file's own, which `orva.write` has put there. ValueError for one of another itemsize
        than the file's own, one that does not divide the rows, and one of objects or of no bytes.
    damaged: "raise" DamagedFileError for lost rows, or "mask" them: results are then masked arrays.
    row0: where heading and rows begin in the file, in bytes; found if not given, in an object only if its first line
        says it.
    threads: threads that inflate in a read of several blocks, the caller's included; 0: one a core.

    Errors: as `orva.open`.
    """
    return Rows(path, dtype, damaged, row0, threads)
