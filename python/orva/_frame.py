"""Rows as a pandas.DataFrame."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING, Any

import numpy as np

from ._rows import Rows
from ._source import Source

if TYPE_CHECKING:
    import numpy.typing as npt
    import pandas  # type: ignore[import]


def frame_of(
    rows: Rows, columns: Sequence[str] | None, first: int, stop: int, index: Any
) -> pandas.DataFrame:
    """The fields of the rows from `first` to before `stop` as columns."""
    import pandas

    fields = rows.dtype.names
    if fields is None or rows.ndim != 1:
        raise ValueError(f"rows of {rows.dtype} have no fields to use as columns")
    if isinstance(columns, str):
        raise TypeError(f"columns must be a list of names, not {columns!r}")
    wanted = list(fields if columns is None else columns)
    parts: dict[str, npt.NDArray[Any]] = {}
    for name in wanted:
        if name not in fields:
            raise ValueError(f"rows of {rows.dtype} have no field {name!r}")
        field = rows.dtype[name]
        if field.subdtype is not None or field.names is not None:
            raise ValueError(f"field {name!r} of {field} cannot be a column, since its values have several parts: leave it out of columns")
        # pandas has no columns of bytes: it would keep these as they are, and fail when it looks for missing values.
        parts[name] = np.empty(stop - first, object if field.kind in "SV" else field.newbyteorder("="))
    done = 0
    for chunk in rows._chunks(first, stop):
        for name, part in parts.items():
            part[done : done + len(chunk)] = chunk[name]
        done += len(chunk)
    return pandas.DataFrame(parts, index, wanted, copy=False)


def to_frame(
    path: Source,
    columns: Sequence[str] | None = None,
    dtype: npt.DTypeLike = None,
    *,
    row0: int | None = None,
    threads: int = 1,
) -> pandas.DataFrame:
    """The rows of a file as a frame, one column for each field, in this machine's byte order; bytes become objects.

    columns: the fields to read, in this order; only they take memory. dtype, row0, threads: as for `orva.rows`.
    Errors: as there; DamagedFileError for lost rows, which a frame cannot show (`orva.rows` can mask them); ValueError
    for a field that does not exist or whose values have several parts.
    """
    with Rows(path, dtype, "raise", row0, threads) as rows:
        return frame_of(rows, columns, 0, len(rows), range(len(rows)))
