"""Interleaved measurements and plain tables, as bench/measure.h has them for the C++ benchmarks.

A shared machine drifts, so each repetition runs every contender once, and a ratio is the median of the ratios within
the repetitions rather than the ratio of two medians.
"""

from __future__ import annotations

import dataclasses
import statistics
from typing import Any, Callable, Sequence


@dataclasses.dataclass
class Contender:
    """One way of doing the work; `run` does it once and returns what was measured."""

    name: str
    run: Callable[[], Any]


def measure_interleaved(contenders: Sequence[Contender], repetitions: int) -> list[list[Any]]:
    """What each contender measured, one for each repetition; one more round, the first, is not counted. Every other
    round goes backwards, so that no contender always follows the same neighbour."""
    samples: list[list[Any]] = [[] for _ in contenders]
    for round_number in range(-1, repetitions):
        order = range(len(contenders))
        for index in order if round_number % 2 == 0 else reversed(order):
            measured = contenders[index].run()
            if round_number >= 0:
                samples[index].append(measured)
    return samples


def percentile(values: Sequence[float], fraction: float) -> float:
    """The value below which `fraction` of the values lie."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def spread_text(values: Sequence[float], decimals: int = 0) -> str:
    """ "1684 (1500-1700)": the median, and from where to where the values go."""
    median, low, high = statistics.median(values), min(values), max(values)
    return f"{median:.{decimals}f} ({low:.{decimals}f}-{high:.{decimals}f})"


def ratio_text(values: Sequence[float], base: Sequence[float]) -> str:
    """The ratios values[i] / base[i], of one repetition each."""
    return "1" if values is base else spread_text([value / of for value, of in zip(values, base)], 2)


def print_table(header: Sequence[str], rows: Sequence[Sequence[str]]) -> None:
    """Columns as wide as their widest cell; the first column is aligned left, the rest right."""
    widths = [max(len(row[column]) for row in (header, *rows)) for column in range(len(header))]
    for number, row in enumerate((header, *rows)):
        print("  ".join([row[0].ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(row[1:], widths[1:]))]))
        if number == 0:
            print("-" * (sum(widths) + 2 * (len(widths) - 1)))
    print()
