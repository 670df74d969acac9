"""What bench_growth found: many producers at once, over rings and over queues."""
import math

from measured import by_round, lines_of, median, ratio
from tables import table

MIB = 1 << 20
TRANSPORTS = ["ring", "small ring", "queue"]


def growth_runs(results, value):
    """{(transport, producers): {round: value}}"""
    records = [record for record in lines_of(results / "growth.jsonl") if record["question"] == "growth"]
    return by_round(records, ("transport", "producers"), value)


def short_stream_runs(results, store):
    records = [record for record in lines_of(results / "growth.jsonl")
               if record["question"] == "short streams" and record["store"] == store]
    return by_round(records, ("transport", "producers"), "streams_per_second")


# What is measured: title, factor, its runs.
QUESTIONS = [
    ("MB/s of all", 1e-6, lambda results: growth_runs(results, "bytes_per_second")),
    ("processor time, s per GB", 1, lambda results: growth_runs(results, "cpu_per_gb")),
    ("memory of a lease, MiB", 1 / MIB, lambda results: growth_runs(results, "lease_bytes")),
    ("p99 to get a lease, ms", 1e-3, lambda results: growth_runs(results, "lease_p99_us")),
    ("short streams/s, null store", 1, lambda results: short_stream_runs(results, "null")),
    ("short streams/s, disk", 1, lambda results: short_stream_runs(results, "disk")),
]


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def growth_table(results):
    found = [(factor, runs(results)) for _, factor, runs in QUESTIONS]
    keys = {key for _, runs in found for key in runs}
    rows = [[f"{transport}, {producers}"] + [
        number(median(runs[transport, producers]) * factor) if (transport, producers) in runs else "-"
        for factor, runs in found]
        for transport in TRANSPORTS for producers in sorted(count for name, count in keys if name == transport)]
    return table(["producers"] + [title for title, _, _ in QUESTIONS], rows)


def grown(results, value, transport="ring"):
    """That of 64 producers divided by that of 2."""
    runs = growth_runs(results, value)
    return ratio(runs.get((transport, 64), {}), runs.get((transport, 2), {}))


def beyond_its_ring(results):
    """Bytes of memory that a lease has beside its ring, with 64 producers."""
    memory = growth_runs(results, "lease_bytes").get(("ring", 64), {})
    ring = growth_runs(results, "ring_bytes").get(("ring", 64), {})
    return median({one: memory[one] - ring[one] for one in memory}) if memory else math.nan
