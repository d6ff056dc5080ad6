"""Reads and writes block-compressed row files as bytes, arrays and frames, from any offset.

>>> orva.write("trades.orva", array)
>>> orva.rows("trades.orva")[1_000_000:1_000_100]

Guide: docs/python.md.
"""

import os
import threading

from . import _orva
from ._errors import DamagedFileError, Error, FileChangedError, UnfinishedFileError
from ._file import File, open
from ._files import FileInfo, JoinReport, RecoverReport, VerifyReport, info, join, recover, roll_back, verify
from ._frame import to_frame
from ._rows import Rows, rows
from ._write import append, write

__version__ = _orva.version()
__all__ = [
    "DamagedFileError",
    "Error",
    "File",
    "FileChangedError",
    "FileInfo",
    "JoinReport",
    "RecoverReport",
    "Rows",
    "UnfinishedFileError",
    "VerifyReport",
    "append",
    "info",
    "join",
    "open",
    "recover",
    "roll_back",
    "rows",
    "to_frame",
    "verify",
    "write",
]


def _main_thread() -> None:
    _orva.remember_main_thread(threading.main_thread().ident or 0)


_main_thread()
os.register_at_fork(after_in_child=_main_thread)
