"""What is printed: a table of the kinds of faults, and for each failure how to repeat it."""

from collections import Counter

from cases import cases

HEAD = ["fault", "what is done", "runs", "before", "during", "after", "missed", "stored", "failed",
        "killed", "wrong"]


def row(case, results):
    ran = [result for result in results if not result.not_run]
    moments = Counter(result.moment for result in ran)
    outcomes = Counter(outcome for result in ran for outcome in result.outcomes)
    failed = outcomes.total() - outcomes["stored"] - outcomes["killed"]
    return [case.name, case.text, len(ran),
            *(moments[moment] for moment in ("before", "during", "after", "missed")),
            outcomes["stored"], failed, outcomes["killed"],
            sum(bool(result.failure) for result in ran)]


def name_of(options):
    return options.seed + (f" --compress {options.compress}" if options.compress else "")


def show(results, options, seconds):
    rows = [row(case, own) for case in cases
            if (own := [result for result in results if result.case == case])]
    total = ["all", "", *(sum(row[n] for row in rows) for n in range(2, len(HEAD)))]
    print(f"Faults with seed {name_of(options)}, {seconds:.0f} s. Columns: when the fault came, seen "
          "from the streams; what the\nproducers reported: everything stored, a failure with its cause, or "
          "nothing, because they were killed.\n")
    show_rows([HEAD, *rows, total])
    ways = Counter(result.way for result in results if result.way)
    print("\nstreams: " + ", ".join(f"{way} {count}" for way, count in sorted(ways.items())))
    for case in cases:
        reasons = {result.not_run for result in results if result.case == case and result.not_run}
        for reason in reasons:
            print(f"not run: {case.name}: {reason}")
    print(f"{total[2]} faults, {total[-1]} with something wrong")


def show_rows(rows):
    widths = [max(len(str(cell)) for cell in column) for column in zip(*rows)]
    line = ["-" * width for width in widths[:2]] + ["-" * (width - 1) + ":" for width in widths[2:]]
    for cells in [rows[0], line, *rows[1:]]:
        texts = [cell.ljust(width) for cell, width in zip(cells, widths[:2])]
        numbers = [str(cell).rjust(width) for cell, width in zip(cells[2:], widths[2:])]
        print("| " + " | ".join(texts + numbers) + " |")


def failure(result, options, folder):
    return (f"WRONG: {result.case.name} ({result.way}, {result.moment}): {result.failure}\n"
            f"  repeat: ./dev faults --case {result.number} 1 {name_of(options)}\n"
            f"  logs: {folder}/{result.number}")
