"""What the benchmarks printed, as the tables and the plots read it."""
import collections
import json
import re
import statistics

SIZES = [64, 1024, 16384, 131072]


def size_name(size):
    return f"{size} B" if size < 1024 else f"{size // 1024} KiB"


def all_lines_of(path):
    return [json.loads(line) for line in path.read_text().splitlines()] if path.exists() else []


def lines_of(path):
    """The measurements; not what was left out because it failed."""
    return [record for record in all_lines_of(path) if "left_out" not in record]


def left_out_of(results):
    """What failed twice in one round, of all questions."""
    return [record for path in sorted(results.glob("*.jsonl")) for record in all_lines_of(path)
            if "left_out" in record]


def by_round(records, keys, value):
    """{key: {round: value}}, a key being the tuple of the fields `keys`."""
    found = collections.defaultdict(dict)
    for record in records:
        if value in record:
            found[tuple(record[key] for key in keys)][record["round"]] = record[value]
    return found


def median(values):
    return statistics.median(values.values())


def ratios(left, right):
    """The ratio of each round that measured both."""
    return [left[n] / right[n] for n in left if n in right]


def ratio(left, right):
    """The median of the rounds' ratios; not a number if no round measured both."""
    found = ratios(left, right)
    return statistics.median(found) if found else float("nan")


class Google:
    """Nanoseconds per item of a Google Benchmark run: {(name, argument): {repetition: ns}}."""

    def __init__(self, path):
        self.found = collections.defaultdict(dict)
        runs = json.loads(path.read_text())["benchmarks"] if path.exists() else []
        for run in runs:
            if run["run_type"] == "iteration":
                name, argument = run["name"].split("/")[:2]
                key = (name, int(argument.split(":")[1]))
                self.found[key][run["repetition_index"]] = 1e9 / run["items_per_second"]

    def sizes(self):
        return sorted({size for _, size in self.found})


def stream_runs(results, value="bytes_per_second"):
    return by_round(lines_of(results / "stream.jsonl"), ("form", "size", "work"), value)


def trip_runs(results):
    return by_round(lines_of(results / "round_trip.jsonl"), ("form", "think_us"), "p50_us")


def demo_runs(results):
    return by_round(lines_of(results / "demo.jsonl"), ("form", "size"), "bytes_per_second")


def stream_sizes(runs):
    return sorted({size for _, size, _ in runs})


RING = "orvane, ring"


def mechanism_of(form):
    """A peer's name, in whichever of its forms; orvane itself is over a queue where it names no other."""
    if form == "orvane":
        return "orvane, queue"
    return form if form.startswith("queue") else re.sub(", (batches|one by one)$", "", form)


def ring_first(names, rate_of):
    """The ring's forms, then all others; the fastest first."""
    return sorted(names, key=lambda name: (not name.startswith(RING), -rate_of(name)))
