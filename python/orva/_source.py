"""What a file is read from: a path, or an object of Python's."""

from __future__ import annotations

import io
import os
import threading
from typing import Any, Union

from . import _orva

PathLike = Union[str, "os.PathLike[str]"]
NEW_BLOCKS = 1 << 20  # bytes of rows in a full block, as the command's own
Source = Union[str, "os.PathLike[str]", io.RawIOBase, io.BufferedIOBase]


def path_of(path: PathLike) -> str:
    """As the caller names it."""
    name = os.fspath(path)
    if not isinstance(name, str):
        raise TypeError(f"a path is str or os.PathLike[str], not {type(path).__name__}")
    if "\0" in name:
        raise ValueError("embedded null character in a path")
    return name


def block_of(length: int | None, default: int) -> int:
    """A block's length for the extension, whose 0 means the longest, or the file's own."""
    return default if length is None else length or -1


class SourceObject:
    """A file that is an object: one thread at a time seeks and reads. A forked child has a lock of its own, since its
    parent's may be held by a thread that the child does not have. But both have one position in a file of the system's,
    and each would read where the other seeks: so a plain file is read without it, and another one not after a fork."""

    def __init__(self, file: io.RawIOBase | io.BufferedIOBase) -> None:
        self._file, self._process = file, os.getpid()
        self._locks: dict[int, threading.Lock] = {}

    def _lock(self) -> threading.Lock:
        return self._locks.setdefault(os.getpid(), threading.Lock())

    def size(self) -> int:
        with self._lock():
            return self._file.seek(0, os.SEEK_END)

    def _has_descriptor(self) -> bool:
        try:
            return self._file.fileno() >= 0
        except (AttributeError, io.UnsupportedOperation):
            return False

    def _read_some(self, offset: int, to: memoryview) -> int | None:
        raw = self._file.raw if type(self._file) is io.BufferedReader else self._file
        if type(raw) is io.FileIO:
            return os.preadv(raw.fileno(), [to], offset)
        if self._process != os.getpid() and self._has_descriptor():
            raise ValueError("a file object that is no plain file cannot be read after a fork: open it by its path")
        self._file.seek(offset)
        return self._file.readinto(to)

    def read_at(self, offset: int, to: memoryview) -> int:
        with self._lock():
            got = 0
            while got < len(to):
                with to[got:] as rest:
                    count = self._read_some(offset + got, rest)
                if count is None:
                    raise BlockingIOError("a source has to wait for its bytes")
                if count == 0:
                    break
                if not 0 < count <= len(to) - got:
                    raise OSError(f"a source tells {count} bytes, and was asked for {len(to) - got}")
                got += count
            return got


class Opened:
    """A reader, and what opens it again in another process."""

    def __init__(self, source: Source | _orva.Source, row0: int | None, threads: int) -> None:
        self.row0, self.threads = row0, threads
        self.again: Any = source
        self.name = str(getattr(source, "name", ""))
        if hasattr(source, "read_at"):
            self.reader = _orva.Reader(source, row0, threads)  # type: ignore[arg-type]
        elif hasattr(source, "readinto") and not isinstance(source, (str, os.PathLike)):
            self.reader = _orva.Reader(SourceObject(source), row0, threads)
        else:
            self.name = path_of(source)
            self.again = os.path.abspath(self.name)
            self.reader = _orva.Reader(os.fsencode(self.name), row0, threads)
