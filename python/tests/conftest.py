"""Files that the tests share."""

import os
from pathlib import Path
from typing import Any

import numpy as np
import pytest

import orva

TRADE = np.dtype([("time", "<i8"), ("price", "<f8"), ("flags", "u1", (3,)), ("name", "S2")])  # 21 bytes
BLOCK = 65_536
DAMAGED = slice(9_362, 12_484)  # the rows that the fourth block has bytes of


def trades(count: int) -> Any:
    rows = np.zeros(count, TRADE)
    rows["time"] = np.arange(count)
    rows["price"] = np.random.default_rng(1).normal(size=count)
    rows["name"] = b"ab"
    return rows


ROWS = trades(20_000)  # seven blocks, whose borders lie in rows


@pytest.fixture(scope="session")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A directory with trades.orva, which holds ROWS, bad.orva, whose fourth block is damaged, and others."""
    home = tmp_path_factory.mktemp("shared")
    orva.write(home / "trades.orva", ROWS, block=BLOCK)
    block = orva.info(home / "trades.orva").blocks[3]
    bad = bytearray((home / "trades.orva").read_bytes())
    bad[block.file_offset + 99 : block.file_offset + 107] = b"\xff" * 8
    (home / "bad.orva").write_bytes(bad)
    with orva.open(home / "bytes.orva", "wb") as file:
        file.write(b"123456789")
    orva.write(home / "numbers.orva", np.arange(10.0))
    (home / "empty").write_bytes(b"")
    (home / "other").write_bytes(b"no rows at all")
    return home


@pytest.fixture
def here(shared: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The working directory: a new one, with those files in it."""
    for file in shared.iterdir():
        os.link(file, tmp_path / file.name)
    monkeypatch.chdir(tmp_path)
    return tmp_path
