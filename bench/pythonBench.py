"""Measures the Python package beside its peers: one array, written by each as it does by default.

Rounds alternate between all entries of a table; a figure is the median of wall time, or of processor time where the
table says so. Every result is compared with the array. Run by scripts/bench-python.
"""

import argparse
import gzip
import io
import os
import resource
import statistics
import subprocess
import time
from pathlib import Path
from typing import Any, Callable

import h5py
import indexed_gzip
import numcodecs
import numpy as np
import zarr

import orva


def trades(size: int) -> Any:
    """Rows of 24 bytes, which deflate to two fifths."""
    random = np.random.default_rng(1)
    count = size // 24
    rows = np.empty(count, [("time", "<i8"), ("price", "<f8"), ("volume", "<i4"), ("venue", "<i4")])
    rows["time"] = 1_600_000_000_000 + np.cumsum(random.integers(1, 2_000, count))
    rows["price"] = 100 + np.cumsum(random.integers(-5, 6, count)) / 100
    rows["volume"] = random.geometric(0.01, count) * 100
    rows["venue"] = random.integers(0, 12, count)
    return rows


def survey(size: int) -> Any:
    """Answers of people, 320 bytes each, as docs/performance.md measures: a number, age, weight and codes, some missing."""
    random = np.random.default_rng(1)
    count = size // 320
    rows = np.empty(count, [(f"v{i}", "<f8") for i in range(40)])
    rows["v0"] = np.arange(count)
    rows["v1"] = 18 + random.integers(0, 70, count)
    rows["v2"] = random.integers(5_000, 15_000, count) / 10_000
    for i in range(3, 40):
        codes = random.integers(0, 2 + i % 6, (2, count)).min(0)
        rows[f"v{i}"] = np.where(random.integers(0, 12, count) == 0, -np.finfo(float).max, 1 + codes)
    return rows


def prepare(rows: Any) -> None:
    orva.write("rows.orva", rows)
    orva.write("short.orva", rows, block=1 << 18)
    rows.tofile("rows.bin")
    subprocess.run("gzip -kf rows.bin", shell=True, check=True)
    with indexed_gzip.IndexedGzipFile("rows.bin.gz") as file:
        file.build_full_index()
        file.export_index("rows.index")
    with h5py.File("rows.h5", "w") as file:
        file.create_dataset("rows", data=rows, compression="gzip")
    zarr.save_array("rows.zarr", rows, compressor=numcodecs.Zlib())


def indexed() -> Any:
    return indexed_gzip.IndexedGzipFile("rows.bin.gz", index_file="rows.index")


def read_all(file: Any, dtype: Any) -> Any:
    with file:
        return np.frombuffer(file.read(), dtype)


def read_h5py() -> Any:
    with h5py.File("rows.h5") as file:
        return file["rows"][:]


def by_row(rows: Any, numbers: Any) -> Any:
    return np.array([rows[number] for number in numbers], rows.dtype)


def rows_of_orva(path: str, numbers: Any) -> Any:
    with orva.rows(path) as rows:
        return by_row(rows, numbers)


def rows_of_indexed(numbers: Any, dtype: Any) -> Any:
    found = np.empty(len(numbers), dtype)
    with indexed() as file:
        for i, number in enumerate(numbers):
            file.seek(number * dtype.itemsize)
            found[i] = np.frombuffer(file.read(dtype.itemsize), dtype)[0]
    return found


def rows_of_h5py(numbers: Any) -> Any:
    with h5py.File("rows.h5") as file:
        return by_row(file["rows"], numbers)


def in_sequence(raw: Any) -> Any:
    file = io.BufferedReader(raw)
    read, count = file.read, 0
    while read(24):
        count += 1
    return count


def cat() -> None:
    with open(os.devnull, "wb") as nowhere:
        subprocess.run(["orva", "cat", "-T", "1", "rows.orva"], check=True, stdout=nowhere)


def processor() -> float:
    return sum(
        usage.ru_utime + usage.ru_stime
        for usage in (resource.getrusage(resource.RUSAGE_SELF), resource.getrusage(resource.RUSAGE_CHILDREN))
    )


def medians(
    works: dict[str, Callable[[], Any]], wanted: Any, rounds: int, clock: Callable[[], float] = time.perf_counter
) -> dict[str, float]:
    took: dict[str, list[float]] = {name: [] for name in works}
    for number in range(rounds + 1):
        for name, work in works.items():
            begin = clock()
            found = work()
            if number > 0:  # the first round reads the files into memory
                took[name].append(clock() - begin)
            assert found is None or np.array_equal(found, wanted), name
            del found
    return {name: statistics.median(times) for name, times in took.items()}


def measure(rows: Any, rounds: int, part: str | None) -> None:
    numbers = np.random.default_rng(2).integers(0, len(rows), 100)
    whole = {
        "gzip.open, frombuffer": lambda: read_all(gzip.open("rows.bin.gz"), rows.dtype),
        "indexed_gzip": lambda: read_all(indexed(), rows.dtype),
        "h5py, gzip": read_h5py,
        "zarr, zlib": lambda: zarr.load("rows.zarr"),
    }
    hundred = {
        "indexed_gzip, index": lambda: rows_of_indexed(numbers, rows.dtype),
        "zarr, zlib": lambda: by_row(zarr.open("rows.zarr", "r"), numbers),
        "h5py, gzip": lambda: rows_of_h5py(numbers),
    }
    wall, all_rows = time.perf_counter, lambda: orva.rows("rows.orva")[:]
    tables: list[tuple[str, str, dict[str, Callable[[], Any]], Callable[[], Any], Any, Callable[[], float]]] = [
        ("whole", "all rows into numpy, processor time", {"orva cat -T 1": cat}, all_rows, rows, processor),
        ("whole", "all rows into numpy", whole, all_rows, rows, wall),
        ("whole", "the same, two threads", whole, lambda: orva.rows("rows.orva", threads=2)[:], rows, wall),
        ("anywhere", "100 rows anywhere, one by one", hundred, lambda: rows_of_orva("rows.orva", numbers), rows[numbers], wall),
        ("anywhere", "the same, blocks of 256 KiB", hundred, lambda: rows_of_orva("short.orva", numbers), rows[numbers], wall),
        (
            "sequence",
            "24 bytes at a time, BufferedReader",
            {"a plain file": lambda: in_sequence(open("rows.bin", "rb", buffering=0))},
            lambda: in_sequence(orva.open("rows.orva")),
            -(-rows.nbytes // 24),
            wall,
        ),
    ]
    print("| | orva | beside | takes | orva takes of it |\n|---|---|---|---|---|")
    for of, name, peers, own, wanted, clock in tables:
        if part not in (None, of):
            continue
        took = medians({"orva": own, **peers}, wanted, rounds, clock)
        for peer in peers:
            ratio = took["orva"] / took[peer]
            print(f"| {name} | {took['orva']:.3f} s | {peer} | {took[peer]:.3f} s | {ratio:.2f} |", flush=True)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("directory")
    parser.add_argument("--megabytes", type=int, default=128)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--data", choices=["survey", "trades"], default="survey")
    parser.add_argument("--part", choices=["whole", "anywhere", "sequence"])
    parser.add_argument("--prepare", action="store_true")
    options = parser.parse_args()
    home = Path(options.directory, options.data)
    home.mkdir(parents=True, exist_ok=True)
    os.chdir(home)
    made = {"survey": survey, "trades": trades}[options.data](options.megabytes * 1_000_000)
    if options.prepare or not Path("rows.bin").exists() or Path("rows.bin").stat().st_size != made.nbytes:
        prepare(made)
    if not options.prepare:
        measure(made, options.rounds, options.part)
