#!/usr/bin/python3
"""Computes statistics over a gigabyte of trades on a scheduler and two worker processes: first the mean price by
volume, while one worker is killed; then both workers write the large trades into a file of their own. Compares every
figure and row.

    examples/dask_statistic.py [--size BYTES] [--home DIRECTORY]
"""

from __future__ import annotations

import argparse
import os
import tempfile
import time
from collections.abc import Iterator
from typing import Any

import numpy as np
import numpy.typing as npt
from distributed import futures_of, wait
from loopback_cluster import LoopbackCluster

import orva
import orva.dask

TRADE = np.dtype([("time", "<i8"), ("cents", "<i4"), ("volume", "<i4")])
PIECE = 1 << 22  # trades that this process holds at a time
LARGE = 900


def trades(first: int, count: int) -> npt.NDArray[Any]:
    """The trades from number `first` on. Each is the same in every run, so that results can be compared."""
    number = np.arange(first, first + count)
    made = np.empty(count, TRADE)
    made["time"] = number * 1_000
    made["cents"] = 10_000 + number // 50_000 + number * 7_919 % 97
    made["volume"] = 1 + number * 104_729 % 1_009
    return made


def pieces(count: int) -> Iterator[npt.NDArray[Any]]:
    for first in range(0, count, PIECE):
        yield trades(first, min(PIECE, count - first))


def sums(rows: npt.NDArray[Any]) -> npt.NDArray[np.int64]:
    """The sums of price times volume, and of volume: whole numbers, so that their order does not matter."""
    volume = rows["volume"].astype(np.int64)
    return np.array([[(rows["cents"] * volume).sum(), volume.sum()]])


def large(rows: npt.NDArray[Any]) -> npt.NDArray[Any]:
    return rows[rows["volume"] >= LARGE]


def store(path: str, count: int) -> None:
    for piece in pieces(count):
        if os.path.exists(path):
            orva.append(path, piece)
        else:
            orva.write(path, piece)


def mean_price(cluster: LoopbackCluster, rows: Any) -> float:
    parts = rows.map_blocks(sums, chunks=((1,) * rows.numblocks[0], (2,)), new_axis=1, dtype=np.int64).persist()
    wait(futures_of(parts), timeout=600, return_when="FIRST_COMPLETED")
    begun = sum(future.done() for future in futures_of(parts))
    cluster.kill_worker()
    print(f"killed a worker when {begun} of {len(futures_of(parts))} partitions were done")
    worth, volume = parts.sum(axis=0).compute()
    return float(worth / volume)


def compare(path: str, wanted: Iterator[npt.NDArray[Any]]) -> int:
    """Checks that the file holds exactly the wanted rows, and returns their count."""
    first = 0
    with orva.rows(path, threads=0) as rows:
        for piece in wanted:
            if not np.array_equal(rows[first : first + len(piece)], piece):
                raise SystemExit(f"{path}: rows from {first} on are not those that were written")
            first += len(piece)
        if first != len(rows):
            raise SystemExit(f"{path}: it has {len(rows)} rows instead of {first}")
    return first


def run(home: str, size: int) -> None:
    count = size // TRADE.itemsize
    source, target = os.path.join(home, "trades.orva"), os.path.join(home, "large.orva")
    store(source, count)
    with LoopbackCluster(workers=2) as cluster:
        rows = orva.dask.from_rows(source, partition_bytes=max(size // 32, 1))
        begin = time.monotonic()
        mean = mean_price(cluster, rows)
        print(f"mean price by volume of {count} trades: {mean:.6f}, after {time.monotonic() - begin:.1f} s")
        worth, volume = sum(sums(piece) for piece in pieces(count))[0]
        if mean != worth / volume:
            raise SystemExit(f"the mean price is {worth / volume} and not {mean}")

        cluster.add_workers(1)
        begin = time.monotonic()
        orva.dask.to_rows(rows.map_blocks(large, chunks=((np.nan,) * rows.numblocks[0],)), target)
        print(f"wrote the large ones by {len(cluster.workers())} workers in {time.monotonic() - begin:.1f} s")
    found = compare(target, (large(piece) for piece in pieces(count)))
    print(f"all right: {compare(source, pieces(count))} trades, {found} large ones, every one compared")


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", type=int, default=1_000_000_000, help="bytes of trades (a gigabyte)")
    parser.add_argument("--home", help="where the files go: a directory that is there (a new one, removed at the end)")
    given = parser.parse_args()
    if given.home:
        run(given.home, given.size)
    else:
        with tempfile.TemporaryDirectory() as directory:
            run(directory, given.size)
