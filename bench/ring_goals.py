"""The goals for rings, what was measured of each, and whether it is met."""
import math
import statistics

from growth import MIB, beyond_its_ring, grown
from measured import (SIZES, demo_runs, lines_of, median, ratio, ratios, size_name, stream_runs, trip_runs)
from tables import in_text, spread_in_text, table, thousands

WORKS = ["bytes", "headers"]
SHIPPED = "orvane, ring"
IN_PLACE = "orvane, ring in place"
QUEUE = "orvane"
ICEORYX = "iceoryx, batches"
COPYING = [f"{peer}, {form}" for peer in ("pipe", "Unix stream", "SEQPACKET, forced buffers", "ZeroMQ", "nng")
           for form in ("batches", "one by one")]


def verdict(values, is_met):
    """No goal is met by what was not measured."""
    if not values or any(math.isnan(value) for value in values):
        return "not measured"
    return "yes" if is_met(values) else "no"


def medians_of(cells):
    return [statistics.median(cell) if cell else math.nan for cell in cells]


def at_least(limit):
    return lambda values: min(values) >= limit


def at_most(limit):
    return lambda values: max(values) <= limit


class Goal:
    """A ratio in each cell: for each kind of work, a list of ratios for each size."""

    def __init__(self, name, goal, cells, is_met):
        self.name = name
        self.goal = goal
        self.cells = cells
        self.is_met = is_met

    def rows(self):
        all_cells = [cell for cells in self.cells.values() for cell in cells]
        met = verdict(medians_of(all_cells), self.is_met)
        return [[f"{self.name}; {work}"] + [spread_in_text(cell) for cell in cells] + [self.goal, met]
                for work, cells in self.cells.items()]


def fastest(runs, forms, size, work):
    there = [runs[form, size, work] for form in forms if (form, size, work) in runs]
    return max(there, key=median) if there else {}


def stream_goal(runs, name, goal, ours, theirs, is_met):
    cells = {work: [ratios(runs.get((ours, size, work), {}), fastest(runs, theirs, size, work))
                    for size in SIZES] for work in WORKS}
    return Goal(name, goal, cells, is_met)


def cell_goals(results):
    speeds = stream_runs(results)
    costs = stream_runs(results, "cpu_per_gb")
    demo = demo_runs(results)
    served = [ratios(demo.get(("ring, null store", size), {}), demo.get(("ring, stream", size), {}))
              for size in SIZES]
    return [
        stream_goal(speeds, "in place / iceoryx, batches", ">= 1 in six of eight, >= 0.9", IN_PLACE, [ICEORYX],
                    lambda values: min(values) >= 0.9 and sum(value >= 1 for value in values) >= 6),
        stream_goal(speeds, "as shipped / iceoryx, batches", ">= 0.85", SHIPPED, [ICEORYX], at_least(0.85)),
        stream_goal(speeds, "as shipped / the best of all that copy", ">= 1.2", SHIPPED, COPYING, at_least(1.2)),
        stream_goal(speeds, "as shipped / queue", ">= 1.5 at 64 B, >= 2", SHIPPED, [QUEUE],
                    lambda values: all(value >= (1.5 if index % len(SIZES) == 0 else 2)
                                       for index, value in enumerate(values))),
        stream_goal(costs, "processor time per GB, as shipped / queue", "<= 0.6", SHIPPED, [QUEUE], at_most(0.6)),
        Goal("orvaned, null store / stream of a ring", ">= 0.9", {"bytes": served}, at_least(0.9)),
    ]


def cells_table(results):
    rows = [row for goal in cell_goals(results) for row in goal.rows()]
    return table(["ratio (quartiles)"] + [size_name(size) for size in SIZES] + ["goal", "met"], rows)


def single_row(name, value, unit, goal, is_met):
    return [name, in_text(value) + (unit if not math.isnan(value) else ""), goal, verdict([value], is_met)]


def trip_ratio(results, think):
    runs = trip_runs(results)
    return ratio(runs.get((SHIPPED, think), {}), runs.get(("Unix stream", think), {}))


def idle_share(results):
    """Of one lease, when the server has as many as were measured."""
    found = [(record["rings"], record["cpu_percent"]) for record in lines_of(results / "idle.jsonl")
             if "rings" in record]
    count, percent = max(found, default=(1, math.nan))
    return percent / count


def singles_table(results):
    rows = [
        single_row("round trips back to back, p50 / Unix stream's", trip_ratio(results, 0), "", "<= 0.33",
                   at_most(1 / 3)),
        single_row("round trips after 20 ms, p50 / Unix stream's", trip_ratio(results, 20000), "", "<= 1",
                   at_most(1)),
        single_row("processor time of an idle lease", idle_share(results), " %", "<= 0.05 %", at_most(0.05)),
        single_row("speed of 64 producers / of 2", grown(results, "bytes_per_second"), "", ">= 0.8", at_least(0.8)),
        single_row("processor time per GB of 64 producers / of 2", grown(results, "cpu_per_gb"), "", "<= 1.2",
                   at_most(1.2)),
        single_row("memory of a lease beside its ring", beyond_its_ring(results) / MIB, " MiB", "<= 2 MiB",
                   at_most(2)),
    ]
    return table(["ring", "measured", "goal", "met"], rows)


def speeds_table(results):
    """MB/s with quartiles, of what the goals compare."""
    runs = stream_runs(results)
    rows = []
    for form in (SHIPPED, IN_PLACE, QUEUE, ICEORYX):
        for work in WORKS:
            cells = [[rate / 1e6 for rate in runs.get((form, size, work), {}).values()] for size in SIZES]
            if any(cells):
                rows.append([f"{form}; {work}"] + [spread_in_text(cell, thousands) for cell in cells])
    return table(["MB/s (quartiles)"] + [size_name(size) for size in SIZES], rows)


def cost_table(results):
    """Seconds of processor time for 10^9 bytes, of both processes."""
    runs = stream_runs(results, "cpu_per_gb")
    rows = []
    for form in (SHIPPED, IN_PLACE, QUEUE, ICEORYX):
        for work in WORKS:
            cells = [list(runs.get((form, size, work), {}).values()) for size in SIZES]
            if any(cells):
                rows.append([f"{form}; {work}"] + [spread_in_text(cell) for cell in cells])
    return table(["s per GB (quartiles)"] + [size_name(size) for size in SIZES], rows)
