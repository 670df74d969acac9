"""Tables in Markdown, and numbers in their cells."""
import math
import statistics


def in_text(value):
    return "-" if math.isnan(value) else f"{value:.{2 if value < 10 else 0}f}"


def table(head, rows):
    """Markdown, aligned so that it can be read on a terminal as well."""
    cells = [head] + rows
    widths = [max(len(row[i]) for row in cells) for i in range(len(head))]
    padded = [[cell.ljust(w) if i == 0 else cell.rjust(w) for i, (cell, w) in
               enumerate(zip(row, widths))] for row in cells]
    rule = ["-" * w if i == 0 else "-" * (w - 1) + ":" for i, w in enumerate(widths)]
    return "\n".join("| " + " | ".join(row) + " |" for row in [padded[0], rule] + padded[1:])


def thousands(value):
    return f"{value:,.0f}"


def spread_in_text(values, in_text=in_text):
    """The median and, in parentheses, the quartiles."""
    if len(values) < 2:
        return in_text(values[0]) if values else "-"
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return f"{in_text(middle)} ({in_text(low)}-{in_text(high)})"
