#!/usr/bin/python3
"""Measures what Dask makes of one file: two workers beside one, and many partitions beside few. Needs two idle cores.

    bench/daskBench.py [--size BYTES]

Prints rows of scripts/bench-python's table; medians of alternating runs.
"""

import argparse
import statistics
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

import numpy as np

sys.path.insert(0, str(Path(__file__).parents[1] / "examples"))
from dask_statistic import TRADE, store  # noqa: E402
from loopback_cluster import LoopbackCluster  # noqa: E402

import orva.dask  # noqa: E402

RUNS = 5


def seconds(cluster: LoopbackCluster, path: str, partition_bytes: int) -> float:
    def volume(rows: Any) -> Any:  # a local function, which is sent to the workers by value
        return rows["volume"].sum(keepdims=True, dtype=np.int64)

    rows: Any = orva.dask.from_rows(path, partition_bytes=partition_bytes)
    parts = rows.map_blocks(volume, chunks=((1,) * rows.numblocks[0],), dtype=np.int64)
    begin = time.monotonic()
    cluster.client.compute(parts.sum()).result(timeout=100)
    return time.monotonic() - begin


def measure(size: int) -> None:
    with tempfile.TemporaryDirectory() as home, LoopbackCluster(1) as one, LoopbackCluster(2) as two:
        path = f"{home}/trades.orva"
        store(path, size // TRADE.itemsize)
        cases = {"one": (one, 24), "two": (two, 24), "few": (two, 8)}
        took: dict[str, list[float]] = {name: [] for name in cases}
        for _ in range(RUNS + 1):
            for name, (cluster, count) in cases.items():
                took[name].append(seconds(cluster, path, size // count))
    median = {name: statistics.median(times[1:]) for name, times in took.items()}  # the first ones open the file
    for name, beside, peer in ("two Dask workers", "one", "one worker"), ("24 partitions", "few", "8 partitions"):
        ratio = median["two"] / median[beside]
        print(f"| {name} | {median['two']:.3f} s | {peer} | {median[beside]:.3f} s | {ratio:.2f} |", flush=True)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", type=int, default=1_000_000_000)
    measure(parser.parse_args().size)
