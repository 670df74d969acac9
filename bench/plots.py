"""One picture for each question that the benchmarks answer."""

import collections
import statistics

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402  (the back end is chosen first)

import growth  # noqa: E402
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


def in_a_row(sizes, width, height):
    figure, all_axes = plt.subplots(1, len(sizes), figsize=(width * len(sizes), height), squeeze=False)
    return figure, all_axes.flat


def draw_stream(results, path):
    """Each mechanism in the better of its forms, at each size."""
    runs = measured.stream_runs(results)
    sizes = measured.stream_sizes(runs)
    if not sizes:
        return
    figure, all_axes = in_a_row(sizes, 3.6, 3.6)
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
    if not sizes:
        return
    figure, all_axes = in_a_row(sizes, 3.2, 1.8)
    for axes, size in zip(all_axes, sizes):
        names = sorted(name for name, of in runs.found if of == size)
        bars(axes, names, [measured.median(runs.found[name, size]) for name in names], title)
        axes.set_title(measured.size_name(size))
    figure.tight_layout()
    save(figure, path)


def draw_round_trip(results, path):
    found = {form: measured.median(run) for (form, think), run in measured.trip_runs(results).items()
             if think == 0}
    if not found:
        return
    names = measured.ring_first(found, lambda name: -found[name])
    figure, axes = plt.subplots(figsize=(6, 3))
    bars(axes, names, [found[name] for name in names], "us there and back, median")
    save(figure, path)


def draw_demo(results, path):
    runs = measured.demo_runs(results)
    sizes = sorted({size for _, size in runs})
    if not sizes:
        return
    figure, all_axes = in_a_row(sizes, 3.2, 1.8)
    for axes, size in zip(all_axes, sizes):
        names = [name for name in ("ring, stream", "ring, null store", "stream", "null store", "ring, disk",
                                   "disk", "dd") if (name, size) in runs]
        bars(axes, names, [measured.median(runs[name, size]) / 1e6 for name in names], "MB/s")
        axes.set_title(f"records of {measured.size_name(size)}")
    figure.tight_layout()
    save(figure, path)


def draw_growth(results, path):
    """Each question by the number of producers: the medians, and the quartiles around them."""
    if not growth.growth_runs(results, "bytes_per_second"):
        return
    figure, all_axes = plt.subplots(2, 3, figsize=(10.5, 5.6))
    for axes, (title, factor, runs_of) in zip(all_axes.flat, growth.QUESTIONS):
        runs = runs_of(results)
        for transport, colour in (("ring", OURS), ("small ring", THEIRS), ("queue", QUEUE)):
            counts = sorted(count for name, count in runs if name == transport)
            values = [[value * factor for value in runs[transport, count].values()] for count in counts]
            spread = [statistics.quantiles(some, n=4, method="inclusive") if len(some) > 1 else some * 3
                      for some in values]
            axes.plot(counts, [middle for _, middle, _ in spread], marker="o", markersize=3, color=colour,
                      label=transport)
            axes.fill_between(counts, [low for low, _, _ in spread], [high for _, _, high in spread],
                              color=colour, alpha=0.2, linewidth=0)
        axes.set_xscale("log", base=2)
        axes.xaxis.set_major_formatter("{x:g}")
        axes.set_ylim(bottom=0)
        axes.set_xlabel("producers")
        axes.set_title(title)
        axes.spines[["top", "right"]].set_visible(False)
    all_axes.flat[0].legend(frameon=False)
    figure.tight_layout()
    save(figure, path)


def draw(results, folder):
    """Nothing is drawn of a question that was not asked."""
    folder.mkdir(exist_ok=True)
    draw_stream(results, folder / "stream.svg")
    draw_google(results, "append.json", "ns a record", folder / "append.svg")
    draw_google(results, "read.json", "ns a record", folder / "read.svg")
    draw_round_trip(results, folder / "round_trip.svg")
    draw_demo(results, folder / "demo.svg")
    draw_growth(results, folder / "growth.svg")
