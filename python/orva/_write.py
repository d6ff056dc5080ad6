"""Writes arrays to files."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import numpy as np

from . import _dtype, _orva
from ._source import NEW_BLOCKS, PathLike, block_of, integer, name_of, path_of, row0_of, threads_of

if TYPE_CHECKING:
    import numpy.typing as npt

_PIECE = 4_190_208  # bytes of rows copied at a time if the array is not contiguous


def array_of(values: Any) -> Any:
    """`values` as an array. A frame becomes its records, without its index: as a plain array all its columns would be
    of one dtype."""
    if isinstance(values, np.ndarray) or not hasattr(values, "columns"):  # which a field of records may be called
        return np.asanyarray(values)
    if not hasattr(values, "to_records") or hasattr(values, "__dask_graph__"):
        of = f"{type(values).__module__}.{type(values).__name__}"
        raise TypeError(f"expected an array or a pandas frame, not a {of}: to_pandas or compute may make one of it")
    names = list(values.columns)
    if not names:
        raise ValueError("expected a frame of at least one column")
    if len({name for name in names if isinstance(name, str)}) < len(names):
        raise ValueError(f"column names must be unique strings, not {names[:9]}: frame.columns.map(str) makes them strings")
    index = values.index
    if index.name is not None or (index.dtype.kind not in "iu" and len(index) > 0):
        raise ValueError("the index of the frame is not stored: reset_index() makes it a column, reset_index(drop=True) drops it")
    return values.to_records(index=False)


def _rows_of(array: npt.ArrayLike) -> tuple[npt.NDArray[Any], np.dtype[Any]]:
    """An array, and the dtype of its rows."""
    values: npt.NDArray[Any] = array_of(array)
    mask: Any = np.ma.getmask(values)  # type: ignore[no-untyped-call]
    if np.ascontiguousarray(mask).view(np.bool_).any():  # masks of fields too
        raise ValueError("masked rows have no values to write: fill them or leave them out")
    values = np.asarray(values)
    if values.ndim == 0:
        hint = "; orva.open writes bytes" if isinstance(array, bytes) else ""
        raise ValueError(f"expected an array of at least one axis, not one value of {type(array).__name__}{hint}")
    if values.dtype.type is np.record:
        values = values.view((np.void, values.dtype))  # the same dtype, without numpy.record in its text
    row = _dtype.checked(values.dtype)
    return values, row if values.ndim == 1 else _dtype.checked((row, values.shape[1:]))


def _write(writer: _orva.Writer, values: npt.NDArray[Any], row: np.dtype[Any]) -> None:
    # As bytes: if numpy copied fields, the padding between them would hold whatever was in memory.
    values = values.view((np.void, values.itemsize))
    step = len(values) if values.flags.c_contiguous else max(_PIECE // row.itemsize, 1)
    for first in range(0, len(values), max(step, 1)):
        piece = np.ascontiguousarray(values[first : first + step])
        writer.write(piece.reshape(-1).view(np.uint8))
    writer.finish()


def write(
    path: PathLike, array: npt.ArrayLike, *, threads: int = 1, level: int = 1, block: int | None = None
) -> None:
    """Writes an array to a new file, one row for each element of its first axis, or a pandas frame, one row for each
    record, without its index. The file replaces one of that name once it is complete and on the disk. It states the
    dtype, so that `orva.rows` needs none.

    threads, level, block: as for `orva.open`. Errors: OSError; TypeError for frames of other libraries;
    ValueError for arrays of objects, of no axis or of elements without bytes, for fields that overlap or stand in another
    order than their names (`numpy.lib.recfunctions.repack_fields` repairs that), for frames whose column names are no
    strings or not unique or whose index has a name or is not of integers, for a dtype of more than a megabyte of text,
    and for options outside their ranges. After an error no new file is left.
    """
    values, row = _rows_of(array)
    name = name_of(path)
    options = threads_of(threads), True, integer(level, "level", 32), block_of(block, NEW_BLOCKS)
    writer = _orva.create(name, _dtype.to_dictionary(row), *options)
    try:
        _write(writer, values, row)
    finally:
        writer.drop()


def append(
    path: PathLike,
    array: npt.ArrayLike,
    *,
    row0: int | None = None,
    roll_back: bool = False,
    threads: int = 1,
    level: int = 1,
    block: int | None = None,
) -> None:
    """Adds rows to a finished file, durably; a crash at any instant can be undone.

    row0, threads, level, block: as for `orva.open`. roll_back: first undoes what an interrupted append has left, which is
    UnfinishedFileError otherwise. Errors: OSError (FileNotFoundError, BlockingIOError while another writer is at work);
    ValueError for rows of another dtype than the file's, or if rows of this dtype do not divide the file's. After an
    error the file is as it was.
    """
    values, row = _rows_of(array)
    name, row0 = name_of(path), row0_of(row0)
    options = threads_of(threads), integer(level, "level", 32), block_of(block, 0), bool(roll_back)
    writer = _orva.append(name, row0, *options)  # keeps other writers out while the dtype is checked
    try:
        own = _dtype.of_file(path_of(path), row0)
        if own is not None and own != row:
            raise ValueError(f'"{path_of(path)}" has rows of {own}, not of {row}')
        if writer.size % row.itemsize != 0:
            raise ValueError(f'"{path_of(path)}" has {writer.size} bytes of rows, not a multiple of the {row.itemsize} of {row}')
        _write(writer, values, row)
    finally:
        writer.drop()
