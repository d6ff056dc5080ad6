"""The errors about files, beside OSError for what the system refuses and ValueError for invalid calls."""

from __future__ import annotations


class Error(Exception):
    """The base class. `path` is the file as the caller named it, '' for an object. `offset` and `block`, where known,
    are the first byte of the rows that could not be read, and the number of their block, both from 0."""

    __module__ = "orva"
    path: str
    offset: int | None
    block: int | None

    def __init__(
        self,
        text: str = "",
        path: str = "",
        offset: int | None = None,
        block: int | None = None,
    ) -> None:
        super().__init__(text)
        self.path, self.offset, self.block = path, offset, block


class DamagedFileError(Error, ValueError):
    """The bytes of a file cannot be what they claim to be. All other blocks can still be read."""

    __module__ = "orva"


class UnfinishedFileError(Error, ValueError):
    """The file's writer has not finished, or an append to it is at work or was interrupted."""

    __module__ = "orva"


class FileChangedError(Error, RuntimeError):
    """The file was written to since it was opened, or since its partitions were made. Doing that again shows its
    present rows."""

    __module__ = "orva"
