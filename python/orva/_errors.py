"""What goes wrong with a file, beside OSError for what the system refuses and ValueError for calls that cannot be meant."""

from __future__ import annotations


class Error(Exception):
    """The family. `path`: the file as the caller named it, '' for an object. Where they are known: `offset`, where the
    rows begin that cannot be had, in bytes of rows from 0, and `block`, the number of their block, from 0."""

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
    """The file was written to since it was opened, or its partitions were made: doing that again shows it as it is now."""

    __module__ = "orva"
