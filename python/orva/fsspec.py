"""Shows the rows in files of any fsspec file system as files, which engines can split as they split plain files.

    fsspec.open("orva::s3://bucket/trades.csv.orva")                  one file, under the path ''
    dask.dataframe.read_csv("orva://bucket/*.csv.orva",               many, by the target's own paths
                            storage_options={"target_protocol": "s3"})
"""

from __future__ import annotations

import io
from typing import Any

import fsspec  # type: ignore[import]
from fsspec.caching import BaseCache  # type: ignore[import]
from fsspec.implementations.local import LocalFileSystem  # type: ignore[import]
from fsspec.implementations.memory import MemoryFileSystem  # type: ignore[import]
from fsspec.spec import AbstractBufferedFile, AbstractFileSystem  # type: ignore[import]

from ._file import File

_BUFFER = 1 << 16  # as much as engines read to find the end of a line; more might need the next block for nothing


def checked(found: bytes, size: int, path: str) -> bytes:
    """The bytes that a store gave for a range of `size` bytes; OSError if they are not as many."""
    if len(found) != size:
        text = f"its store returned {len(found)} bytes for a range of {size}; use simplecache:: to copy whole files"
        raise OSError(f"{path}: {text}")
    return found


class _Ranges:
    """A file of a file system that reads ranges itself, on any thread and without state."""

    def __init__(self, fs: AbstractFileSystem, path: str) -> None:
        self.name = path
        self._fs, self._length = fs, fs.info(path)["size"]

    def size(self) -> int:
        if self._length is None:
            raise OSError(f"{self.name}: its file system does not report its size")
        return int(self._length)

    def read_at(self, offset: int, to: memoryview) -> int:
        end = min(offset + len(to), self.size())
        if end <= offset:
            return 0
        to[: end - offset] = checked(self._fs.cat_file(self.name, start=offset, end=end), end - offset, self.name)
        return end - offset


def source(fs: AbstractFileSystem, path: str) -> Any:
    """The source from which orva reads a file of a file system, with one request to the store for each read."""
    if isinstance(fs, LocalFileSystem):
        return fs._strip_protocol(path)
    if getattr(type(fs), "local_file", False):  # a cache of whole files
        with fs.open(path, "rb") as copy:
            return copy.name
    ranged = fs.async_impl and getattr(fs.cat_file, "__func__", None) is not AbstractFileSystem.cat_file
    if ranged or isinstance(fs, MemoryFileSystem):  # which gives all who open a file one object, with one position
        return _Ranges(fs, path)
    file = fs.open(path, "rb")
    if isinstance(file, AbstractBufferedFile):  # its own read-ahead would fetch what nobody asks for
        file.cache = BaseCache(file.blocksize, file._fetch_range, file.size)
        # FTP's files share the connection of their file system, but may be read on threads of their own.
        shared = file.fs
        file.fs = type(shared)(*shared.storage_args, skip_instance_cache=True, **shared.storage_options)
    return file


class _Buffered(io.BufferedReader):
    """A buffered file that has its size and pickles by being opened again, as fsspec's own files do."""

    def __init__(self, fs: OrvaFileSystem, path: str, pos: int = 0) -> None:
        file = File(source(fs._target, fs._path(path)), row0=fs._row0)
        self._again = fs, path
        self.size = file.seek(0, io.SEEK_END)
        file.seek(pos)
        super().__init__(file, _BUFFER)

    def __reduce__(self) -> Any:
        return _Buffered, (*self._again, self.tell())


class OrvaFileSystem(AbstractFileSystem):  # type: ignore[misc]
    """Reads rows through another file system, the target, and takes that one's paths.

    fo: the file under the path ''. target_protocol, target_options: make the target, as for `fsspec.filesystem`. Name
    several files by their paths: of a list of `orva::` URLs fsspec passes on only the first, or, in older versions, a
    list, which is refused. row0: as for `orva.open`, in each file.

    `info` opens a file, since its size is that of the rows; `ls`, and so a glob, opens none and gives no sizes. `ukey`
    is the target's. Opening takes at most three reads of the store, each block then one. Writing is
    io.UnsupportedOperation. Errors: as `orva.open`, and the target's own, unchanged.
    """

    protocol = "orva"

    def __init__(
        self,
        fo: str = "",
        target_protocol: str = "file",
        target_options: dict[str, Any] | None = None,
        row0: int | None = None,
        **options: Any,
    ) -> None:
        super().__init__(**options)
        if not isinstance(fo, str):
            raise ValueError("orva:: opens one file: for several, use orva:// paths and set target_protocol in storage_options")
        self._target = fsspec.filesystem(target_protocol, **(target_options or {}))
        self._fo = self._target._strip_protocol(fo) if fo else ""
        self._row0 = row0

    def _path(self, path: str) -> str:
        own = self._strip_protocol(path)
        return self._target._strip_protocol(own) if own else self._fo  # type: ignore[no-any-return]

    def _entry(self, entry: dict[str, Any], size: int | None) -> dict[str, Any]:
        name = "" if self._fo and entry["name"] == self._fo else entry["name"]
        return {**entry, "name": name, "size": entry["size"] if entry["type"] == "directory" else size}

    def info(self, path: str, **kwargs: Any) -> dict[str, Any]:
        entry = self._target.info(self._path(path), **kwargs)
        if entry["type"] == "directory":
            return self._entry(entry, None)
        with self._open(path) as file:
            return self._entry(entry, file.size)

    def ls(self, path: str, detail: bool = True, **kwargs: Any) -> list[Any]:
        target = self._path(path)
        one = self._fo != "" and target == self._fo
        entries = [self._target.info(target)] if one else self._target.ls(target, detail=True, **kwargs)
        found = [self._entry(entry, None) for entry in entries]
        return found if detail else [entry["name"] for entry in found]

    def glob(self, path: str, **kwargs: Any) -> Any:
        return super().glob(self._path(path), **kwargs)

    def _type(self, path: str) -> str | None:
        # Not by the target's own methods: those of HTTP request the whole file.
        try:
            return str(self._target.info(self._path(path))["type"])
        except FileNotFoundError:
            return None

    def exists(self, path: str, **kwargs: Any) -> bool:
        return self._type(path) is not None

    def isfile(self, path: str) -> bool:
        return self._type(path) == "file"

    def isdir(self, path: str) -> bool:
        return self._type(path) == "directory"

    def ukey(self, path: str) -> str:
        return str(self._target.ukey(self._path(path)))

    def created(self, path: str) -> Any:
        return self._target.created(self._path(path))

    def modified(self, path: str) -> Any:
        return self._target.modified(self._path(path))

    def _open(self, path: str, mode: str = "rb", **kwargs: Any) -> _Buffered:
        if mode != "rb":
            raise io.UnsupportedOperation(f"orva:// is read-only: mode must be 'rb', not {mode!r}")
        return _Buffered(self, path)
