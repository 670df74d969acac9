"""One picture for each question that the benchmarks answer."""

import collections

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402  (the back end is chosen first)

import measured  # noqa: E402

# So that the same results give the same file.
matplotlib.rcParams["svg.hashsalt"] = "orvane"
matplotlib.rcParams["svg.fonttype"] = "none"
matplotlib.rcParams["font.size"] = 9
OURS = "#c0392b"
THEIRS = "#7f8c8d"
QUEUE = "#e59866"


def colour_of(name):
    if name.startswith(("orvane", "ring,", "write", "BatchView", "batchView", "null", "disk")):
        return OURS
    return QUEUE if name.startswith("queue") else THEIRS


def save(figure, path):
    figure.savefig(path, metadata={"Date": None}, bbox_inches="tight")
    plt.close(figure)


def bars(axes, names, values, unit):
    axes.barh(range(len(names)), values, color=[colour_of(name) for name in names])
    axes.set_yticks(range(len(names)), names)
    axes.invert_yaxis()
    axes.set_xlabel(unit)
    for row, value in enumerate(values):
        axes.text(value, row, f" {value:,.3g}" if value < 100 else f" {value:,.0f}", va="center")
    axes.margins(x=0.2)
    axes.spines[["top", "right"]].set_visible(False)


def draw_stream(results, path):
    """Each mechanism in the better of its forms, at each size."""
    runs = measured.stream_runs(results)
    sizes = measured.stream_sizes(runs)
    figure, all_axes = plt.subplots(1, len(sizes), figsize=(3.6 * len(sizes), 3.6))
    for axes, size in zip(all_axes, sizes):
        best = collections.defaultdict(float)
        for (form, of, work), run in runs.items():
            if of == size and work == "bytes":
                name = measured.mechanism_of(form)
                best[name] = max(best[name], measured.median(run) / 1e6)
        names = measured.ring_first(best, best.get)
        bars(axes, names, [best[name] for name in names], "MB/s")
        axes.set_title(f"records of {measured.size_name(size)}")
    figure.tight_layout()
    save(figure, path)


def draw_google(results, name, title, path):
    runs = measured.Google(results / name)
    sizes = runs.sizes()
    figure, all_axes = plt.subplots(1, len(sizes), figsize=(3.2 * len(sizes), 1.8))
    for axes, size in zip(all_axes, sizes):
        names = sorted(name for name, of in runs.found if of == size)
        bars(axes, names, [measured.median(runs.found[name, size]) for name in names], title)
        axes.set_title(measured.size_name(size))
    figure.tight_layout()
    save(figure, path)


def draw_round_trip(results, path):
    p50 = measured.by_round(measured.lines_of(results / "round_trip.jsonl"), ("form", "think_us"), "p50_us")
    found = {form: measured.median(run) for (form, think), run in p50.items() if think == 0}
    names = measured.ring_first(found, lambda name: -found[name])
    figure, axes = plt.subplots(figsize=(6, 3))
    bars(axes, names, [found[name] for name in names], "us there and back, median")
    save(figure, path)


def draw_demo(results, path):
    runs = measured.by_round(measured.lines_of(results / "demo.jsonl"), ("form", "size"), "bytes_per_second")
    sizes = sorted({size for _, size in runs})
    figure, all_axes = plt.subplots(1, len(sizes), figsize=(3.2 * len(sizes), 1.8))
    for axes, size in zip(all_axes, sizes):
        names = [name for name in ("ring, stream", "ring, null store", "stream", "null store", "ring, disk",
                                   "disk", "dd") if (name, size) in runs]
        bars(axes, names, [measured.median(runs[name, size]) / 1e6 for name in names], "MB/s")
        axes.set_title(f"records of {measured.size_name(size)}")
    figure.tight_layout()
    save(figure, path)


def draw(results, folder):
    folder.mkdir(exist_ok=True)
    draw_stream(results, folder / "stream.svg")
    draw_google(results, "append.json", "ns a record", folder / "append.svg")
    draw_google(results, "read.json", "ns a record", folder / "read.svg")
    draw_round_trip(results, folder / "round_trip.svg")
    draw_demo(results, folder / "demo.svg")
