"""The rows of a file as a stream of bytes."""

from __future__ import annotations

import io
import operator
import os
import threading
import warnings
from typing import Any, Literal, NoReturn

from . import _orva
from ._source import NEW_BLOCKS, Opened, PathLike, Source, block_of, integer, name_of, path_of, row0_of, threads_of

Mode = Literal["rb", "wb", "xb", "ab"]
_FARTHEST = (1 << 63) - 1
_PEEK = 4096  # most lines end in as many bytes


def _begin(path: PathLike, mode: str, row0: int | None, threads: int, level: int, block: int | None) -> _orva.Writer:
    name, length = name_of(path), block_of(block, NEW_BLOCKS)
    threads, level, row0 = threads_of(threads), integer(level, "level", 32), row0_of(row0)
    if mode != "ab":
        if row0 is not None:
            raise ValueError("row0 applies only to an existing file, and this one is new")
        return _orva.create(name, b"", threads, mode == "wb", level, length)
    try:
        return _orva.append(name, row0, threads, level, block_of(block, 0), False)
    except FileNotFoundError:
        if row0 is not None:
            raise
    try:
        return _orva.create(name, b"", threads, False, level, length)
    except FileExistsError:  # another process was quicker
        return _orva.append(name, row0, threads, level, block_of(block, 0), False)


class File(io.RawIOBase):
    """The rows of a file as bytes, opened by `orva.open`: to read at any offset, or to write in sequence.

    Positions count bytes of rows, from 0. They have no descriptor: `fileno`, `truncate`, and `seek` of a writer raise
    io.UnsupportedOperation. A reader pickles by absolute path and position, and works after a fork; a writer does
    neither. Only one thread at a time may move the position; opening several readers of one path is cheap.

    A writer's rows are durably under its name when `close` returns, and not before: `flush` does nothing. A writer
    abandons them if an exception leaves its `with` statement, or if it is collected unclosed, which gives a
    ResourceWarning.
    """

    __module__ = "orva"
    name: str
    mode: str
    closed = False  # a plain attribute, since io's wrappers look at it before each of their reads

    def __init__(
        self,
        path: Source,
        mode: str = "rb",
        *,
        row0: int | None = None,
        threads: int = 1,
        level: int = 1,
        block: int | None = None,
    ) -> None:
        super().__init__()
        self._opened: Opened | None = None
        self._writing: _orva.Writer | None = None
        self._pos = 0
        if mode not in ("rb", "wb", "xb", "ab"):
            raise ValueError(f"mode must be 'rb', 'wb', 'xb' or 'ab', not {mode!r}")
        self.mode = mode
        if mode == "rb":
            self._opened = Opened(path, row0, threads)
            self.name = self._opened.name
        else:
            self._lock, self._process = threading.RLock(), os.getpid()
            self._writing = _begin(path, mode, row0, threads, level, block)  # type: ignore[arg-type]
            self.name = path_of(path)  # type: ignore[arg-type]

    def __repr__(self) -> str:
        return f"<orva.File name={self.name!r} mode={self.mode!r}>"

    def _no_reader(self, what: str) -> NoReturn:
        self._open()
        raise io.UnsupportedOperation(what)

    def _writer(self, what: str) -> _orva.Writer:
        self._open()
        if self._writing is None:
            raise io.UnsupportedOperation(what)
        if self._process != os.getpid():
            raise ValueError("another process writes it: a forked child cannot")
        return self._writing

    def readable(self) -> bool:
        self._open()
        return self._opened is not None

    def writable(self) -> bool:
        self._open()
        return self._opened is None

    seekable = readable

    def _open(self) -> None:
        if self.closed:
            raise ValueError("I/O operation on closed file")

    def tell(self) -> int:
        if self._opened is not None:
            self._open()
            return self._pos
        writer = self._writer("tell")
        with self._lock:
            return writer.size

    def seek(self, offset: int, whence: int = os.SEEK_SET) -> int:
        """Moves to a byte of the rows, or beyond them. ValueError for a position before them."""
        self._open()
        reader = (self._opened or self._no_reader("seek")).reader
        if whence not in (os.SEEK_SET, os.SEEK_CUR, os.SEEK_END):
            raise ValueError(f"invalid whence ({whence}, should be 0, 1 or 2)")
        to = operator.index(offset) + (0, self._pos, reader.size)[whence]
        if to < 0:
            raise ValueError(f"negative seek position {to}")
        if to > _FARTHEST:
            raise OverflowError(f"seek position {to} is beyond any file")
        self._pos = to
        return to

    def readinto(self, buffer: Any) -> int:
        """Fills `buffer` and returns the number of bytes, which is less only at the end of the rows."""
        opened = self._opened or self._no_reader("read")
        got = opened.reader.read_at(self._pos, buffer)
        self._pos += got
        return got

    def read(self, size: int | None = -1) -> bytes:
        reader = (self._opened or self._no_reader("read")).reader
        left = max(reader.size - self._pos, 0)
        wanted = -1 if size is None else operator.index(size)
        rows = reader.read_bytes(self._pos, left if wanted < 0 else min(wanted, left))
        self._pos += len(rows)
        return rows

    def readall(self) -> bytes:
        return self.read()

    def peek(self, size: int = 0) -> bytes:
        """Some of the next bytes, without moving past them; none only at the end. io's `readline` finds the end of a
        line in them, and else would read byte by byte. They are of one block: the next may be damaged."""
        reader = (self._opened or self._no_reader("read")).reader
        return reader.read_bytes(self._pos, min(reader.end_of_block(self._pos) - self._pos, _PEEK))

    def write(self, rows: Any) -> int:
        """Writes all bytes of `rows` and returns their number. Any exception abandons the file, except a TypeError
        raised before a byte was taken."""
        writer = self._writer("write")
        with self._lock:
            before = writer.size
            try:
                return writer.write(rows)
            except BaseException as error:
                # Even if a signal handler raised it: nobody learns how much was taken, and io's wrappers would write it
                # again.
                if not isinstance(error, TypeError) or writer.size != before:
                    writer.drop()
                raise

    def truncate(self, size: int | None = None) -> NoReturn:
        self._open()
        raise io.UnsupportedOperation("truncate")

    def close(self) -> None:
        """Finishes what was written. OSError if that fails; nothing of it is left then. May be called again."""
        if self.closed:
            return
        try:
            if self._writing is not None:
                writer = self._writer("close")
                with self._lock:
                    writer.finish()
        finally:
            self._let_go()

    def _let_go(self) -> None:
        super().close()
        self.closed = True
        if self._opened is not None:
            self._opened.reader.close()
        if self._writing is not None:
            self._writing.drop()

    def __exit__(self, *raised: object) -> None:
        if raised[0] is not None and self._writing is not None and not self.closed:
            self._let_go()
        self.close()

    def _dealloc_warn(self, source: object) -> None:
        # io's wrappers call this when they are collected unclosed, before they close this file.
        if self._writing is not None and not self.closed:
            self._let_go()  # first: a warning may be an error, which the wrappers ignore before they close this file
            warnings.warn(f"{self!r} was not closed: its rows are abandoned", ResourceWarning, 2, source)

    def __del__(self) -> None:
        if hasattr(self, "_writing"):
            try:
                self._dealloc_warn(self)
            finally:
                self._let_go()

    def __reduce__(self) -> Any:
        if self._opened is None:
            raise TypeError("a writer cannot be pickled")
        self._open()
        return _again, (self._opened.again, self._opened.row0, self._opened.threads, self._pos)


def _again(path: Source, row0: int | None, threads: int, pos: int) -> File:
    file = File(path, row0=row0, threads=threads)
    file.seek(pos)
    return file


def open(
    path: Source,
    mode: Mode = "rb",
    *,
    row0: int | None = None,
    threads: int = 1,
    level: int = 1,
    block: int | None = None,
) -> File:
    """Opens the rows of a file as a stream of bytes.

    mode: "rb" reads; "wb" makes a new file, which replaces one of that name at close; "xb" does so too, but raises
        FileExistsError if the name is taken; "ab" appends to a finished file, or makes one.
    path: a path; for "rb" also a seekable binary file object, which is read under a lock.
    row0: where heading and rows begin in the file, in bytes; found if not given, in an object only if its first line
        says it.
    threads: threads that inflate or compress at a time, the caller's included, at most 256; 0: one a core.
    level: of compression, 1 to 12. block: bytes of rows in a full block, 65,536 to 4,190,208; by default 1 MiB in a new
        file, and in an append the file's own.

    Errors: OSError from the system (FileNotFoundError, BlockingIOError while another writer is at work, ...);
    DamagedFileError; UnfinishedFileError; ValueError for options outside their ranges.
    """
    return File(path, mode, row0=row0, threads=threads, level=level, block=block)
