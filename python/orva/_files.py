"""Functions on whole files. Offsets and sizes are bytes of rows, from 0; blocks count from 0.

progress(done, total) is called from time to time with the bytes done. A search for the heading, if one comes before the
work, is counted by itself, in bytes of the file. An exception ends the work, and no output is left.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from typing import Any, Literal, Optional

from . import _dtype, _orva
from ._source import PathLike, name_of, paths_of, row0_of, threads_of

Progress = Optional[Callable[[int, int], object]]


@dataclass(frozen=True)
class Range:
    offset: int
    length: int


@dataclass(frozen=True)
class Block:
    rows: Range
    file_offset: int  # where its compressed bytes begin
    stored: int  # their number


@dataclass(frozen=True)
class FileInfo:
    found_by: Literal["option", "dictionary", "search"]  # how the heading was found
    swapped: bool  # the file has the other byte order
    row0: int  # offset of the heading: the length of the dictionary part
    size: int  # bytes of rows
    stored: int  # bytes of their compressed blocks
    file_size: int
    block_size: int  # as the index states it; readers ignore it
    index: Range  # its place in the file
    blocks: list[Block] = field(repr=False)


@dataclass(frozen=True)
class BadBlock:
    block: int
    rows: Range  # the rows that are lost
    text: str  # what is wrong


@dataclass(frozen=True)
class VerifyReport:
    blocks: int
    bad: list[BadBlock]
    index: str  # what is wrong with the index as a whole; empty if it is sound

    @property
    def sound(self) -> bool:
        return not self.bad and not self.index


@dataclass(frozen=True)
class LostRows:
    rows: Range  # in the damaged file
    estimated: bool  # a guess, since no index states how many rows there were
    text: str


@dataclass(frozen=True)
class RecoverReport:
    blocks: int
    size: int  # bytes of recovered rows
    lost: list[LostRows]


@dataclass(frozen=True)
class JoinReport:
    blocks: int
    size: int  # bytes of rows


def _called(progress: Progress) -> Progress:
    if progress is not None and not callable(progress):
        raise TypeError(f"progress must be callable, not {progress!r}")
    return progress


def info(path: PathLike, *, row0: int | None = None) -> FileInfo:
    """The content of a finished file's heading and index. Errors: as `orva.open`."""
    fields: list[Any]
    *fields, index, blocks = _orva.info(name_of(path), row0_of(row0))
    fields += [Range(*index), [Block(Range(*rows), *where) for rows, *where in blocks]]
    return FileInfo(*fields)


def verify(
    path: PathLike, *, row0: int | None = None, threads: int = 1, progress: Progress = None
) -> VerifyReport:
    """Inflates every block, and continues after a damaged one. threads and errors: as `orva.open`."""
    blocks, bad, index = _orva.verify(name_of(path), row0_of(row0), threads_of(threads), _called(progress))
    return VerifyReport(blocks, [BadBlock(block, Range(*rows), text) for block, rows, text in bad], index)


def recover(
    source: PathLike,
    target: PathLike,
    *,
    row0: int | None = None,
    committed: bool = False,
    drop_lost: bool = False,
    replace: bool = False,
    progress: Progress = None,
) -> RecoverReport:
    """Writes what can be read of a damaged or unfinished file into the new file `target`; `source` stays as it is.

    committed: leaves out what an interrupted append has added. drop_lost: closes gaps, which zeros fill otherwise.
    replace: replaces a file of that name, else FileExistsError. DamagedFileError if not a single block can be found.
    """
    how = row0_of(row0), bool(committed), bool(drop_lost), bool(replace), _called(progress)
    blocks, size, lost = _orva.recover(name_of(source), name_of(target), *how)
    return RecoverReport(blocks, size, [LostRows(Range(*rows), *rest) for rows, *rest in lost])


def roll_back(path: PathLike) -> Literal["nothing", "undone", "whole", "completed"]:
    """Durably ends an append that a crash has interrupted. Returns "nothing" if there was none, "undone" if the file
    holds the rows from before it, "whole" if the file was sound as it stood, "completed" if all rows of the append were
    there. BlockingIOError while the append is alive."""
    return _orva.roll_back(name_of(path))  # type: ignore[return-value]


def join(
    sources: Iterable[PathLike],
    target: PathLike,
    *,
    row0: int | None = None,
    replace: bool = False,
    progress: Progress = None,
) -> JoinReport:
    """Writes the rows of finished files, one after the other, into the new file `target`, which keeps the first one's
    dtype. Blocks are copied as they are; only the last one of each file is inflated, as a check. row0: as for
    `orva.open`, in each of them. ValueError for no file, for files that state different dtypes, and if `target` is one
    of them."""
    paths, row0 = paths_of(sources), row0_of(row0)
    names = [name_of(path) for path in paths]
    dtypes = {path: _dtype.of_reader(_orva.Reader(name, row0, 1), path) for name, path in zip(names, paths)}
    stated = [(path, dtype) for path, dtype in dtypes.items() if dtype is not None]
    for path, dtype in stated:
        if dtype != stated[0][1]:
            raise ValueError(f'"{path}" has rows of {dtype}, but "{stated[0][0]}" has rows of {stated[0][1]}')
    return JoinReport(*_orva.join(names, name_of(target), row0, bool(replace), _called(progress)))
