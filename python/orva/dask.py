"""Rows as Dask arrays and dataframes, and back: files become partitions, and partitions files.

    frame = orva.dask.from_rows("trades.orva", frame=True)
    orva.dask.to_rows(frame[frame.price > 0], "good.orva")

Guide: docs/many-machines.md.
"""

from __future__ import annotations

import errno
import hashlib
import operator
import os
import shutil
import threading
import uuid
import zlib
from collections.abc import Iterator, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from functools import lru_cache, partial
from typing import TYPE_CHECKING, Any, Union

import fsspec  # type: ignore[import]
import numpy as np
import numpy.typing as npt
from dask.base import compute, is_dask_collection, tokenize
from dask.delayed import delayed
from dask.highlevelgraph import HighLevelGraph
from dask.utils import is_dataframe_like, natural_sort_key, parse_bytes

from . import _dtype
from ._errors import FileChangedError
from ._files import join
from ._frame import frame_of
from ._rows import Rows
from ._source import PathLike, path_of, paths_of, row0_of
from ._write import array_of, write
from .fsspec import checked, source

if TYPE_CHECKING:
    from dask.array.core import Array
    from dask.dataframe.core import DataFrame

Paths = Union[PathLike, Sequence[PathLike]]
_OPEN_FILES = 16  # in each process
_SAMPLES = 16


@dataclass(frozen=True)
class _Fingerprint:
    """The state of a file when its partitions were made. A worker recognises the file by it, even with rows
    appended."""

    size: int
    blocks: int
    begins: str  # hash of where the blocks' rows and bytes begin
    sums: bytes  # Adler-32 of some blocks' rows, as their streams end with it; the last is the last block's


@dataclass(frozen=True)
class _File:
    """What a worker needs to open a file. `token` changes when the name gets other rows."""

    url: str
    dtype: np.dtype[Any] | None
    row0: int | None
    fingerprint: _Fingerprint
    token: str
    options: dict[str, Any] = field(compare=False)


@dataclass(frozen=True)
class _Part:
    """Rows of a file that one task reads; the first of them is number `number` among the rows of all files."""

    file: _File
    first: int
    stop: int
    number: int


def _target(url: str, options: dict[str, Any]) -> Any:
    return fsspec.core.url_to_fs(url, **options) if "://" in url else (fsspec.filesystem("file"), url)


def _names(path: str, options: dict[str, Any]) -> list[str]:
    """The files that a path with a * stands for; any other path stands for itself."""
    if "*" not in path:
        return [path]
    fs, pattern = _target(path, options)
    found = sorted(fs.glob(pattern), key=natural_sort_key)
    if not found:
        raise FileNotFoundError(errno.ENOENT, "no file has such a name", path)
    before, same, after = path.partition(pattern)  # such as the cache of a chain, which fs.glob leaves out
    return [f"{before}{name}{after}" if same else fs.unstrip_protocol(name) for name in found]


def _index(rows: Rows) -> npt.NDArray[np.int64]:
    """Offset and length of each block's rows, and of its bytes in the file."""
    return np.frombuffer(rows._reader.blocks(), np.int64).reshape(-1, 4)


def _fingerprint(rows: Rows, fs: Any, name: str, blocks: int | None = None) -> _Fingerprint:
    """The state of the first `blocks` blocks of a file. Reads only the last 4 bytes of some of them."""
    index = _index(rows)[:blocks]
    count = len(index)
    some = np.unique([*np.linspace(0, max(count - 2, 0), _SAMPLES).astype(int), max(count - 1, 0)])[:count]
    ends = index[some, 2:].sum(axis=1).tolist()
    sums = fs.cat_ranges([name] * len(ends), [end - 4 for end in ends], ends)
    for failed in (found for found in sums if isinstance(found, BaseException)):  # some file systems return exceptions
        raise failed
    begins = hashlib.sha256(np.ascontiguousarray(index[:, [0, 2]]).tobytes()).hexdigest()
    return _Fingerprint(rows.nbytes, count, begins, checked(b"".join(sums), 4 * len(ends), name))


def _matches(was: _Fingerprint, rows: Rows, fs: Any, name: str) -> bool:
    """Whether the file still begins with the rows that it had."""
    now = _fingerprint(rows, fs, name, was.blocks)
    if now.begins != was.begins:
        return False
    if now.size == was.size:
        return now.sums == was.sums
    if was.size == 0:
        return True
    begin = int(_index(rows)[was.blocks - 1, 0])  # of the last block, which an append may have rewritten with more rows
    last = zlib.adler32(rows._reader.read_bytes(begin, was.size - begin)).to_bytes(4, "big")
    return now.sums[:-4] + last == was.sums


def _opened(fs: Any, name: str, dtype: npt.DTypeLike, row0: int | None) -> tuple[Rows, Any, str]:
    """The rows, and the file system and name of the file's bytes, which may be a copy that fsspec keeps."""
    found = source(fs, name)
    rows = Rows(found, dtype, "raise", row0, 1)
    return (rows, fsspec.filesystem("file"), found) if isinstance(found, str) else (rows, fs, name)


def _file(path: str, dtype: npt.DTypeLike, row0: int | None, options: dict[str, Any]) -> tuple[_File, Rows]:
    url = path if "://" in path else os.path.abspath(path)
    fs, name = _target(url, options)
    token = fs.ukey(name)
    rows, fs, name = _opened(fs, name, dtype, row0)
    given = None if dtype is None else np.dtype(dtype)
    return _File(url, given, row0, _fingerprint(rows, fs, name), token, options), rows


def _files(
    paths: list[str], dtype: npt.DTypeLike, row0: int | None, options: dict[str, Any]
) -> Iterator[tuple[_File, Rows]]:
    """Opens files. Those of an asynchronous store are opened several at a time, since each waits for the store several
    times."""
    opened = partial(_file, dtype=dtype, row0=row0, options=options)
    if not all("://" in path and _target(path, options)[0].async_impl for path in paths):
        yield from map(opened, paths)  # on the caller's thread, where signals can interrupt it
        return
    with ThreadPoolExecutor(_OPEN_FILES) as pool:
        for first in range(0, len(paths), _OPEN_FILES):
            yield from pool.map(opened, paths[first : first + _OPEN_FILES])


@lru_cache(maxsize=1024)
def _opening(file: _File, process: int) -> threading.Lock:
    """Keeps tasks of several threads from all reading the same index. A forked child has a lock of its own, since its
    parent's may be held by a thread that the child does not have."""
    return threading.Lock()


def _rows(file: _File) -> Rows:
    with _opening(file, os.getpid()):
        return _kept(file)


@lru_cache(maxsize=_OPEN_FILES)
def _kept(file: _File) -> Rows:
    """Rows that a worker keeps open for its later tasks, which then read no index."""
    fs, name = _target(file.url, file.options)
    rows, fs, name = _opened(fs, name, file.dtype, file.row0)
    if not _matches(file.fingerprint, rows, fs, name):
        raise FileChangedError(
            f'"{file.url}" no longer has the rows that its partitions were made of: make them again with from_rows', file.url
        )
    return rows


def _read(part: _Part) -> Any:
    return _rows(part.file)[part.first : part.stop]


class _ReadFrame:
    """Reads a partition as a frame of these columns. Dask asks for fewer columns if it needs no more."""

    def __init__(self, columns: Sequence[str] | None) -> None:
        self.columns = columns

    def project_columns(self, columns: list[str]) -> _ReadFrame:
        return _ReadFrame(list(columns))

    def __call__(self, part: _Part) -> Any:
        numbers = range(part.number, part.number + part.stop - part.first)
        return frame_of(_rows(part.file), self.columns, part.first, part.stop, numbers)


def _parts(file: _File, rows: Rows, partition_bytes: int, number: int) -> Iterator[_Part]:
    for part in rows.splits(max(round(rows.nbytes / partition_bytes), 1)):
        yield _Part(file, part.start, part.stop, number + part.start)


def from_rows(
    paths: Paths,
    dtype: npt.DTypeLike = None,
    *,
    frame: bool = False,
    columns: Sequence[str] | None = None,
    partition_bytes: int | str = 1 << 26,
    row0: int | None = None,
    storage_options: dict[str, Any] | None = None,
) -> Any:
    """The rows of files, one after the other, as a Dask array, or as a dataframe with a column for each field, whose
    index numbers the rows from 0. Fields of bytes become columns of objects, which `to_rows` refuses; arrays keep them.

    A partition ends with a block, or with the row that goes on into the next one: so at most two partitions inflate a
    block, and they share a row of it. A task holds a path and a range of rows. A worker opens a file once, for its
    index of 24 bytes a block and for 4 bytes each of up to 17 blocks, by which it recognises the file. It keeps some
    files open; one that has been replaced is freed when it is closed.

    paths: paths that lead to the same files on each worker, or URLs of fsspec's file systems, which get
        `storage_options`. One with a * stands for all files of such names, with 9.orva before 10.orva.
    dtype, row0: as for `orva.rows`, for all files; by default their own.
    columns: of a frame, the fields to read, in this order; by default all.
    partition_bytes: approximate bytes of rows in a partition, also as a text such as "64MiB"; a file has as many
        partitions as come nearest to it, but no more than it has blocks.

    Errors here: those of `orva.rows`; FileNotFoundError if a * stands for no file; ValueError for no path, and for files
    of different dtypes. Errors of the tasks: OSError; DamagedFileError; FileChangedError for a file that was replaced by
    one with other rows, and for a block that an append has rewritten since the worker opened the file;
    UnfinishedFileError for a file that it opens during an append. Tasks do not see rows that were added meanwhile.
    """
    if isinstance(partition_bytes, str):
        partition_bytes = int(parse_bytes(partition_bytes))
    if columns is not None and not frame:
        raise ValueError("columns are those of a frame: pass frame=True, or select the fields of the array")
    if operator.index(partition_bytes) < 1:
        raise ValueError("partition_bytes must be 1 or more")
    options = storage_options or {}
    given = [path_of(paths)] if isinstance(paths, (str, os.PathLike)) else paths_of(paths)
    listed = [name for path in given for name in _names(path, options)]
    if not listed:
        raise ValueError("expected at least one path")
    parts: list[_Part] = []
    first: Rows | None = None
    number = 0
    for file, rows in _files(listed, dtype, row0_of(row0), options):
        first = first or rows
        if rows._row != first._row:
            raise ValueError(f'"{file.url}" has rows of {rows._row}, but "{listed[0]}" has rows of {first._row}')
        parts += _parts(file, rows, partition_bytes, number)
        number += len(rows)
    assert first is not None
    parts = parts or [_Part(file, 0, 0, 0)]
    ranges = [(part.file.token, part.file.fingerprint, part.first, part.stop) for part in parts]
    name = f"orva-rows-{tokenize(ranges, first._row, frame, columns)}"  # type: ignore[no-untyped-call]
    return _frame(parts, name, first, columns) if frame else _array(parts, name, first)


def _array(parts: list[_Part], name: str, like: Rows) -> Array:
    from dask.array.core import Array

    within = like.shape[1:]
    layer = {(name, i, *(0 for _ in within)): (_read, part) for i, part in enumerate(parts)}
    graph = HighLevelGraph.from_collections(name, layer)  # type: ignore[no-untyped-call]
    chunks = tuple(part.stop - part.first for part in parts), *((length,) for length in within)
    return Array(graph, name, chunks, like.dtype)  # type: ignore[no-untyped-call]


def _frame(parts: list[_Part], name: str, like: Rows, columns: Sequence[str] | None) -> DataFrame:
    from dask.dataframe.io.io import from_map

    meta = frame_of(like, columns, 0, 0, range(0))
    end = parts[-1].number + parts[-1].stop - parts[-1].first
    divisions = (*(part.number for part in parts), max(end - 1, 0))
    label, token = name.rsplit("-", 1)
    return from_map(  # type: ignore[no-untyped-call, no-any-return]
        _ReadFrame(columns), parts, meta=meta, divisions=divisions, label=label, token=token, enforce_metadata=False
    )


def _write_part(values: Any, name: str, dtype: np.dtype[Any], within: tuple[int, ...]) -> str:
    """Safe to repeat, even at the same time: whoever comes last replaces the same rows."""
    rows = array_of(values)
    if rows.dtype != dtype or rows.shape[1:] != within:
        raise ValueError(
            f"a partition has rows of {rows.dtype} and shape {rows.shape[1:]}, but its collection has {dtype} and {within}"
        )
    beside = f"{name}.{uuid.uuid4().hex}"
    write(beside, rows)
    os.replace(beside, name)
    return name


def _pieces(collection: Any) -> tuple[list[Any], np.dtype[Any], tuple[int, ...]]:
    """The partitions as delayed objects, and dtype and shape of their rows."""
    if is_dask_collection(collection) and is_dataframe_like(collection):
        return collection.to_delayed(), array_of(collection._meta).dtype, ()
    if not hasattr(collection, "numblocks") or collection.ndim == 0:
        given = f"{type(collection).__module__}.{type(collection).__name__}"
        raise TypeError(f"expected a dask array of at least one axis or a dask dataframe, not a {given}")
    if any(count > 1 for count in collection.numblocks[1:]):
        collection = collection.rechunk({axis: -1 for axis in range(1, collection.ndim)})
    return collection.to_delayed().reshape(-1).tolist(), collection.dtype, collection.shape[1:]


def to_rows(collection: Array | DataFrame, path: PathLike) -> None:
    """Computes a Dask array, or a dataframe's records without their index, into one file, which replaces one of that
    name.

    Each partition becomes a file in the directory `path`.parts, written by the worker that has computed it. This
    process then joins the files, which inflates only the last block of each, and removes the directory. So the workers
    and this process need the directory under one name. A task may be repeated, even while it still runs elsewhere.

    Errors: those of the tasks; ValueError for partitions of another dtype than the collection's, or that
    `orva.write` would refuse; FileExistsError if `path`.parts exists, from a call at work or from one that was killed.
    After an error no new file is left.
    """
    target = os.path.abspath(path_of(path))
    parts = target + ".parts"
    pieces, dtype, within = _pieces(collection)
    _dtype.checked(dtype)  # before anything is computed
    try:
        os.mkdir(parts)
    except FileExistsError as error:
        why = "another call writes to it, or was killed: if none is at work, remove the directory"
        raise FileExistsError(error.errno, why, parts) from None
    try:
        task = delayed(_write_part, pure=False)
        names = [os.path.join(parts, f"{i:08d}.orva") for i in range(len(pieces))]
        tasks = [task(piece, name, dtype, within) for piece, name in zip(pieces, names)]
        join(compute(tasks)[0], target, replace=True)  # type: ignore[no-untyped-call]
    finally:
        _remove(parts)


def _remove(parts: str) -> None:
    """Renames the directory first, so that a task that still runs, though it was repeated elsewhere, cannot add a file
    to it."""
    gone = f"{parts}.{uuid.uuid4().hex}"
    os.rename(parts, gone)
    shutil.rmtree(gone)
