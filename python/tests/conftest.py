# Files shared by the tests.

import io
import shutil
import time
from pathlib import Path
from typing import Any

import numpy as np
import pytest

import orva

TRADE = np.dtype([("time", "<i8"), ("price", "<f8"), ("flags", "u1", (3,)), ("name", "S2")])  # 21 bytes
BLOCK = 65_536
# Seven blocks, whose borders lie in rows.
ROWS = np.array([(number, number % 7_919 / 7, (1, 2, 3), b"ab") for number in range(20_000)], TRADE)
BYTES = ROWS.tobytes()


class Slow(io.BytesIO):
    reads = 0
    read_at = None  # a method of files of other libraries, with arguments of its own

    def seek(self, *to: int) -> None:  # type: ignore[override]  # returns nothing, as in files of SFTP
        super().seek(*to)

    def readinto(self, to: Any) -> int:
        self.reads += 1
        time.sleep(0)  # lets other threads in between seek and read
        return super().readinto(to)


# The bytes of a file, with damage in these blocks.
def damaged(path: Path, *blocks: int) -> bytes:
    bad = bytearray(path.read_bytes())
    for block in (orva.info(path).blocks[number] for number in blocks):
        bad[block.file_offset + 99 : block.file_offset + 107] = b"\xff" * 8
    return bytes(bad)


# A directory with trades.orva, which holds ROWS; bad.orva, whose fourth block is damaged; zeros.orva, which takes a
# while to read; and others.
@pytest.fixture(scope="session")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Path:
    home = tmp_path_factory.mktemp("shared")
    orva.write(home / "trades.orva", ROWS, block=BLOCK)
    (home / "bad.orva").write_bytes(damaged(home / "trades.orva", 3))
    with orva.open(home / "bytes.orva", "wb") as file:
        file.write(b"123456789")
    orva.write(home / "numbers.orva", np.arange(10.0))
    (home / "taken.orva.parts").touch()
    orva.write(home / "zeros.orva", np.zeros(1 << 25))
    return home


# A new working directory with those files in it.
@pytest.fixture
def here(shared: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    monkeypatch.chdir(shutil.copytree(shared, tmp_path, dirs_exist_ok=True))
    return tmp_path
