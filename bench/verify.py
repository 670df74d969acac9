#!/usr/bin/env python3
"""Compares the speed of `orvane verify` with that of `dd`, on files that are not in the page cache.

Stores noise as one stream of many segments, and as four streams of one segment each, and reads each
store with one and with the other by turns. Prints the median rates, and the median of the ratios of
each round.
"""
import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

MIB = 1 << 20


def make_store(programs, folder, segment_size, sizes):
    """Sends noise through a real server: nothing below the file system can shrink it."""
    store, socket = folder / "store", folder / "socket"
    store.mkdir()
    server = subprocess.Popen([programs / "orvaned", "--store", store, "--socket", socket],
                              stderr=subprocess.DEVNULL)
    try:
        while not socket.exists():
            time.sleep(0.01)
        for size in sizes:
            noise = subprocess.Popen(["head", "-c", str(size), "/dev/urandom"], stdout=subprocess.PIPE)
            subprocess.run([programs / "orvane", "send", "--quiet", "--socket", socket,
                            "--segment-size", segment_size, "-"],
                           stdin=noise.stdout, stdout=subprocess.DEVNULL, check=True)
            noise.wait()
    finally:
        server.terminate()
        server.wait()
    return store


def drop_from_cache(files):
    for path in files:
        with open(path, "rb") as file:
            os.fsync(file.fileno())
            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def seconds_of(commands):
    start = time.monotonic()
    for command in commands:
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.monotonic() - start


def measure(programs, store, rounds):
    """The rates of each round, in bytes per second: {reader: [rate]}"""
    files = sorted(store.glob("*/segment-*"))
    size = sum(file.stat().st_size for file in files)
    readers = [("dd", [["dd", f"if={file}", "of=/dev/null", "bs=1M"] for file in files]),
               ("verify", [[programs / "orvane", "verify", "--quiet", store]])]
    rates = {"dd": [], "verify": []}
    for _ in range(rounds):
        for reader, commands in readers:
            drop_from_cache(files)
            rates[reader].append(size / seconds_of(commands))
        readers.reverse()
    return rates


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--mib", type=int, default=4096, help="the size of each store (4096)")
    parser.add_argument("--programs", type=Path,
                        default=Path(__file__).resolve().parent.parent / "build/release/bin")
    return parser.parse_args()


def main():
    options = parse_options()
    quarter = options.mib // 4
    stores = [("one stream, segments of 64 MiB", "64MiB", [options.mib * MIB]),
              (f"four streams, segments of {quarter} MiB", f"{quarter}MiB", [quarter * MIB] * 4)]
    print("| store | `dd`, MB/s | `orvane verify`, MB/s | ratio |\n|---|---:|---:|---:|")
    for name, segment_size, sizes in stores:
        with tempfile.TemporaryDirectory(prefix="orvane-bench-") as folder:
            store = make_store(options.programs, Path(folder), segment_size, sizes)
            rates = measure(options.programs, store, options.rounds)
        dd, verify = rates["dd"], rates["verify"]
        ratio = statistics.median(v / d for d, v in zip(dd, verify))
        print(f"| {name} | {statistics.median(dd) / 1e6:,.0f} | {statistics.median(verify) / 1e6:,.0f} "
              f"| {ratio:.2f} |", flush=True)


if __name__ == "__main__":
    main()
