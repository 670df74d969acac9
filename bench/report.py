#!/usr/bin/env python3
"""Turns what the benchmarks printed into tables, and with --docs into those of the documents.

usage: report.py RESULTS [--docs ROOT]

A ratio is the median of the rounds' ratios: each round measures everything once, so that a slow
moment of the machine hits both sides of some rounds and does not move the median.
"""

import argparse
import collections
import os
import pathlib
import platform
import re
import subprocess
import sys
import time

import growth
import ring_goals
from measured import (RING, SIZES, Google, by_round, demo_runs, left_out_of, lines_of, mechanism_of, median, ratio,
                      ring_first, size_name, stream_runs, stream_sizes, trip_runs)
from tables import in_text, table

SINGLE_PEERS = ["pipe", "Unix stream", "ZeroMQ", "nng"]


def append_table(results):
    runs = Google(results / "append.json")
    wanted = {"writeData": [3.0, 3.0, 1.35, 1.05, 1.05], "writeSegment": [3.5, 3.8, 1.5, 1.05, 1.05]}
    rows = []
    for index, size in enumerate(runs.sizes()):
        copy = runs.found["memcpy", size]
        row = [size_name(size), f"{median(copy):.1f} ns"]
        for call in ("writeData", "writeSegment"):
            took = runs.found[call, size]
            row += [f"{median(took):.1f} ns", f"{ratio(took, copy):.2f}", f"{wanted[call][index]:.2f}"]
        rows.append(row)
    return table(["data", "memcpy", "write_data", "ratio", "goal", "writeSegment", "ratio", "goal"], rows)


def read_table(results):
    runs = Google(results / "read.json")
    rows = [[size_name(size), f"{median(runs.found['trusting', size]):.1f} ns",
             f"{median(runs.found['batchView', size]):.1f} ns",
             f"{ratio(runs.found['batchView', size], runs.found['trusting', size]):.2f}"]
            for size in runs.sizes()]
    return table(["data", "trusting reader", "BatchView", "ratio"], rows)


def stream_table(results, work):
    runs = stream_runs(results)
    sizes = stream_sizes(runs)
    forms = {form for form, _, kind in runs if kind == work}
    speed = {form: max(median(runs[form, size, work]) for size in sizes
                       if (form, size, work) in runs) for form in forms}
    rows = []
    for form in ring_first(forms, lambda form: speed[form]):
        row = [form]
        for size in sizes:
            run = runs.get((form, size, work))
            if run:
                times = ratio(runs.get((RING, size, work), {}), run)
                row.append(f"{median(run) / 1e6:,.0f} MB/s (x{in_text(times)})")
            else:
                row.append("-")
        rows.append(row)
    return table(["records of"] + [size_name(size) for size in sizes], rows)


def readme_table(results):
    """Each mechanism in the better of its forms; orvane over a ring and over queues."""
    runs = stream_runs(results)
    sizes = stream_sizes(runs)
    best = collections.defaultdict(dict)
    for (form, size, work), run in runs.items():
        ours = form == "orvane" or form.startswith(RING)
        if work == "bytes" and (ours or not form.startswith(("queue", "orvane"))):
            cell = best[mechanism_of(form)]
            cell[size] = max(cell.get(size, 0), median(run) / 1e6)
    rows = [[name] + [f"{best[name][size]:,.0f}" if size in best[name] else "-" for size in sizes]
            for name in ring_first(best, lambda name: sum(best[name].values()))]
    return table(["MB/s with records of"] + [size_name(size) for size in sizes], rows)


def best_of(runs, forms, size, work):
    """The fastest of the forms by its median."""
    there = [form for form in forms if (form, size, work) in runs]
    return max(there, key=lambda form: median(runs[form, size, work])) if there else None


def goal_rows(runs, label, work, forms, wanted):
    row = [label]
    for size, goal in zip(SIZES, wanted):
        form = best_of(runs, forms, size, work)
        if form is None:
            row.append("-")
            continue
        times = ratio(runs.get(("orvane", size, work), {}), runs[form, size, work])
        row.append(f"{in_text(times)} / {goal:g}")
    return row


def goals_table(results):
    runs = stream_runs(results)
    single = [f"{peer}, {how}" for peer in SINGLE_PEERS for how in ("batches", "one by one")]
    rows = [
        goal_rows(runs, "the queue, filled before; bytes", "bytes", ["queue, filled before"],
                  [0.70, 0.95, 0.95, 0.95]),
        goal_rows(runs, "the queue, filled before; headers", "headers", ["queue, filled before"],
                  [0.70] * 4),
        goal_rows(runs, "one record a message; bytes", "bytes", ["queue, one by one"],
                  [10, 2.5, 1.2, 1.1]),
        goal_rows(runs, "one record a message; headers", "headers", ["queue, one by one"],
                  [10, 2.5, 1.2, 1.1]),
        goal_rows(runs, "best of pipe, Unix stream, ZeroMQ, nng; bytes", "bytes", single, [1.0] * 4),
        goal_rows(runs, "best of pipe, Unix stream, ZeroMQ, nng; headers", "headers", single,
                  [1.0] * 4),
    ]
    return table(["orvane / ... (measured / goal)"] + [size_name(size) for size in SIZES], rows)


def round_trip_table(results):
    p50 = trip_runs(results)
    p99 = by_round(lines_of(results / "round_trip.jsonl"), ("form", "think_us"), "p99_us")
    rows = []
    for form, _ in sorted((key for key in p50 if key[1] == 0), key=lambda key: median(p50[key])):
        row = [form, f"{median(p50[form, 0]):.1f} us", f"{median(p99[form, 0]):.1f} us",
               in_text(ratio(p50[form, 0], p50.get(("Unix stream", 0), {})))]
        rested = p50.get((form, 20000))
        row.append(f"{median(rested):.1f} us" if rested else "-")
        row.append(in_text(ratio(rested or {}, p50.get(("Unix stream", 20000), {}))))
        rows.append(row)
    return table(["there and back", "p50", "p99", "p50 / Unix stream's", "p50 after 20 ms", "/ Unix stream's"],
                 rows)


def idle_table(results):
    rows = [[f"{record[kind]} {kind}", f"{record['cpu_percent']:.2f} %",
             f"{record['cpu_percent'] / record[kind]:.3f} %"]
            for kind in ("pairs", "rings") for record in lines_of(results / "idle.jsonl") if kind in record]
    return table(["leases", "of one core", "each"], rows)


def speed(run):
    return f"{median(run) / 1e6:,.0f} MB/s" if run else "-"


def demo_table(results):
    runs = demo_runs(results)
    rows = []
    for prefix, transport in (("ring, ", "ring"), ("", "queue")):
        for size in sorted({size for _, size in runs}):
            stream, null, disk, dd = (runs.get((form, size), {}) for form in
                                      (prefix + "stream", prefix + "null store", prefix + "disk", "dd"))
            rows.append([f"{transport}, {size_name(size)}", speed(stream), speed(null),
                         in_text(ratio(null, stream)), speed(dd), speed(disk), in_text(ratio(disk, dd))])
    return table(["records of", "stream", "null store", "ratio", "dd", "disk", "ratio"], rows)


def compression_table(results):
    """Both beside the same bytes without compression, and beside what the disk takes."""
    runs = demo_runs(results)
    rows = []
    for content in ("text", "noise"):
        for size in sorted({size for _, size in runs}):
            disk, zstd, dd = (runs.get((form, size), {}) for form in
                              (content + ", disk", content + ", zstd:1", "dd"))
            rows.append([f"{content}, {size_name(size)}", speed(dd), speed(disk), speed(zstd),
                         in_text(ratio(zstd, disk)), in_text(ratio(zstd, dd))])
    return table(["records of", "dd", "disk", "zstd:1", "zstd:1 / disk", "zstd:1 / dd"], rows)


def sweep_rows(records, key, default):
    runs = by_round(records, (key, "size"), "bytes_per_second")
    sizes = sorted({size for _, size in runs})
    settings = list(dict.fromkeys(record[key] for record in sorted(
        records, key=lambda record: [int(part) for part in re.split("[x-]", str(record[key]))])))
    rows = []
    for setting in settings:
        row = [str(setting)]
        for size in sizes:
            run = runs.get((setting, size))
            row.append(in_text(ratio(run, runs.get((default, size), {}))) if run else "-")
        rows.append(row)
    return sizes, rows


def geometry_table(results):
    sizes, rows = sweep_rows(lines_of(results / "geometry.jsonl"), "geometry", "8x1048968")
    for row in rows:
        messages, size = map(int, row[0].split("x"))
        row.insert(1, f"{messages * size / (1 << 20):.1f} MiB")
    return table(["messages x bytes", "in all"] + [size_name(size) for size in sizes], rows)


def ring_sweep_table(results, name, default):
    """Each form and work by itself: its speed divided by that with the default."""
    rows = []
    sizes = SIZES
    records = lines_of(results / f"{name}.jsonl")
    for form, work in sorted({(record["form"], record["work"]) for record in records}):
        sizes, found = sweep_rows([record for record in records if (record["form"], record["work"]) == (form, work)],
                                  name, default)
        rows += [[f"{form}, {work}; {int(setting) >> 10:,} KiB"] + cells for setting, *cells in found]
    return table([f"{name}s of"] + [size_name(size) for size in sizes], rows)


def pause_table(results):
    _, rows = sweep_rows(lines_of(results / "pause.jsonl"), "pauses", "50-5000")
    trips = by_round(lines_of(results / "pause_trips.jsonl"), ("form", "think_us"), "p50_us")
    idle = {record["pauses"]: record["cpu_percent"]
            for record in lines_of(results / "idle.jsonl") if "pauses" in record}
    for row in rows:
        pauses = row[0]
        for think in (0, 20000):
            run = trips.get(("polling " + pauses, think))
            row.append(f"{median(run):,.0f} us" if run else "-")
        row.append(f"{idle[pauses]:.2f} %" if pauses in idle else "-")
    return table(["shortest-longest, us", "stream of 1 KiB", "round trip", "after 20 ms", "idle"], rows)


def left_out_table(results):
    rows = []
    for record in left_out_of(results):
        case = ", ".join(f"{name} {value}" for name, value in record.items()
                         if name not in ("question", "round", "left_out"))
        rows.append([record["question"], case, str(record["round"]), record["left_out"]])
    if not rows:
        return "Nothing was left out because it failed."
    return table(["question", "left out", "from round", "because"], rows)


def first_line(command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.splitlines()[0]


def machine():
    cpu = next(line.split(":")[1].strip() for line in open("/proc/cpuinfo") if "model name" in line)
    release = platform.freedesktop_os_release()["PRETTY_NAME"] if hasattr(
        platform, "freedesktop_os_release") else platform.system()
    return (f"{time.strftime('%Y-%m-%d')}; {cpu}, {os.cpu_count()} cores; Linux {platform.release()}; "
            f"{release}; {first_line(['c++', '--version'])}.")


def with_plot(name, text, make):
    """A block with the picture, for a document that has no such picture before its first run."""

    def made(results):
        found = make(results)
        return f"![{text}](plots/{name}.svg)\n\n{found}" if found.count("\n") > 1 else found

    return made


TABLES = {
    "readme": readme_table,
    "ring-cells": ring_goals.cells_table,
    "ring-goals": ring_goals.singles_table,
    "ring-speeds": ring_goals.speeds_table,
    "ring-costs": ring_goals.cost_table,
    "goals": goals_table,
    "stream-bytes": lambda results: stream_table(results, "bytes"),
    "stream-headers": lambda results: stream_table(results, "headers"),
    "append": append_table,
    "read": read_table,
    "round-trip": round_trip_table,
    "idle": idle_table,
    "demo": demo_table,
    "compression": compression_table,
    "growth": with_plot("growth", "Many producers at once", growth.growth_table),
    "geometry": geometry_table,
    "frame": lambda results: ring_sweep_table(results, "frame", 256 << 10),
    "ring-size": lambda results: ring_sweep_table(results, "ring", 8 << 20),
    "pause": pause_table,
}


def fill_in(path, blocks):
    """Replaces what stands between `<!-- bench: NAME -->` and `<!-- end -->`."""

    def block(match):
        name = match[1]
        return f"<!-- bench: {name} -->\n{blocks[name]}\n<!-- end -->" if name in blocks else match[0]

    text = path.read_text()
    path.write_text(re.sub(r"<!-- bench: (\S+) -->\n.*?<!-- end -->", block, text, flags=re.DOTALL))


def draw_plots(results, folder):
    try:
        import plots
    except ImportError as error:
        print(f"left out: the plots ({error})", file=sys.stderr)
    else:
        plots.draw(results, folder)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("results", type=pathlib.Path)
    parser.add_argument("--docs", type=pathlib.Path)
    arguments = parser.parse_args()
    blocks = {"machine": machine(), "left-out": left_out_table(arguments.results)}
    for name, make in TABLES.items():
        made = make(arguments.results)
        if made.count("\n") > 1:
            blocks[name] = made
    for name, text in blocks.items():
        print(f"{name}:\n\n{text}\n")
    if arguments.docs:
        for document in ("docs/performance.md", "README.md"):
            fill_in(arguments.docs / document, blocks)
        draw_plots(arguments.results, arguments.docs / "docs" / "plots")


if __name__ == "__main__":
    sys.exit(main())
