"""Where a file's bytes come from: a path, or a Python object."""

from __future__ import annotations

import io
import operator
import os
import threading
import weakref
from collections.abc import Iterable
from typing import Any, Union

from . import _orva

PathLike = Union[str, "os.PathLike[str]"]
NEW_BLOCKS = 1 << 20  # bytes of rows in a full block, as the command makes them
_MOST_THREADS = 256  # the library uses no more
Source = Union[str, "os.PathLike[str]", io.RawIOBase, io.BufferedIOBase]


def path_of(path: PathLike) -> str:
    """The path as the caller names it."""
    name = os.fspath(path) if isinstance(path, (str, os.PathLike)) else None
    if not isinstance(name, str):
        raise TypeError(f"expected a path (str or os.PathLike[str]), not {type(path).__name__}")
    if "\0" in name:
        raise ValueError("embedded null character in a path")
    return name


def name_of(path: PathLike) -> bytes:
    """The path as the extension takes it."""
    return os.fsencode(path_of(path))


def paths_of(paths: Iterable[PathLike]) -> list[str]:
    if isinstance(paths, (str, bytes, os.PathLike)) or not isinstance(paths, Iterable):
        raise TypeError(f"expected a list of paths, not {paths!r}")
    return [path_of(path) for path in paths]


def integer(value: int, what: str, bits: int = 64) -> int:
    """The value as an int that fits the extension's type; the extension itself checks whether it makes sense."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{what} must be an integer, not {value!r}") from None
    if not -1 << (bits - 1) <= number < 1 << (bits - 1):
        raise ValueError(f"{what} is out of range: {number}")
    return number


def threads_of(threads: int) -> int:
    return min(integer(threads, "threads", 32), _MOST_THREADS)


def row0_of(row0: int | None) -> int | None:
    return None if row0 is None else integer(row0, "row0")


def block_of(length: int | None, default: int) -> int:
    """A block's length for the extension, where 0 means the longest, or the file's own."""
    return default if length is None else integer(length, "block") or -1


# The locks of each object that is read, by process.
_LOCKS: weakref.WeakKeyDictionary[Any, dict[int, threading.Lock]] = weakref.WeakKeyDictionary()


class SourceObject:
    """A file that is a Python object. One thread at a time seeks and reads, whichever reader of the object it uses. A
    forked child has a lock of its own, since its parent's may be held by a thread that the child does not have. The
    position of a descriptor stays common to both, and each would read where the other seeks: so a plain file is read
    without it, and another file with a descriptor is refused after a fork."""

    def __init__(self, file: io.RawIOBase | io.BufferedIOBase) -> None:
        self._file, self._process = file, os.getpid()
        try:
            self._locks = _LOCKS.setdefault(file, {})
        except TypeError:  # the object has no hash or no weak references
            self._locks = {}

    def _lock(self) -> threading.Lock:
        return self._locks.setdefault(os.getpid(), threading.Lock())

    def size(self) -> int:
        with self._lock():
            self._file.seek(0, os.SEEK_END)  # some files return nothing from it, as those of SFTP
            return self._file.tell()

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
            raise ValueError("a file object other than a plain file cannot be read after a fork: open it by its path")
        self._file.seek(offset)
        if hasattr(self._file, "readinto"):
            return self._file.readinto(to)
        found = self._file.read(len(to)) or b""  # files of Hadoop and of archives have no readinto
        to[: len(found)] = found
        return len(found)

    def read_at(self, offset: int, to: memoryview) -> int:
        with self._lock():
            got = 0
            while got < len(to):
                with to[got:] as rest:
                    count = self._read_some(offset + got, rest)
                if count is None:
                    raise BlockingIOError("the source has no bytes ready: it must be blocking")
                if count == 0:
                    break
                if not 0 < count <= len(to) - got:
                    raise OSError(f"the source reported {count} bytes for a request of {len(to) - got}")
                got += count
            return got


class Opened:
    """A reader, and the arguments that open it again in another process."""

    def __init__(self, source: Source | _orva.Source, row0: int | None, threads: int) -> None:
        self.row0, self.threads = row0_of(row0), threads_of(threads)
        self.again: Any = source
        self.name = str(getattr(source, "name", None) or getattr(source, "path", ""))
        how = self.row0, self.threads
        if isinstance(source, (str, os.PathLike)):
            self.name = path_of(source)
            self.again = os.path.abspath(self.name)
            self.reader = _orva.Reader(name_of(source), *how)
        elif hasattr(source, "seek") and not isinstance(source, io.TextIOBase):
            if not getattr(source, "readable", lambda: True)():
                raise io.UnsupportedOperation("not readable")
            self._source = SourceObject(source)  # type: ignore[arg-type]
            # The collector sees no cycle through the extension, such as that of a source that keeps its rows or its
            # error.
            self.reader = _orva.Reader(weakref.proxy(self._source), *how, self.name.encode(errors="backslashreplace"))
        elif hasattr(source, "read_at"):
            self.reader = _orva.Reader(source, *how, self.name.encode(errors="backslashreplace"))
        else:
            given = type(source).__name__ + (": open it first" if hasattr(source, "open") else "")
            raise TypeError(f"expected a path (str or os.PathLike[str]) or a binary file object, not {given}")
