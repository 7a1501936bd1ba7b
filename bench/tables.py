"""Markdown tables, and programs measured alternately."""

from collections.abc import Callable, Mapping, Sequence
from statistics import median
from typing import TypeVar

T = TypeVar("T")


def print_row(*cells: object) -> None:
    print("| " + " | ".join(map(str, cells)) + " |", flush=True)


def print_head(*columns: str) -> None:
    print_row(*columns)
    print_row(*("---" for _ in columns))


def spread(values: Sequence[float], digits: int) -> str:
    """The median and, in brackets, the least and the greatest."""
    return f"{median(values):.{digits}f} ({min(values):.{digits}f} to {max(values):.{digits}f})"


def ratio(values: Sequence[float], floor: Sequence[float]) -> str:
    """The median of the ratios within each round."""
    return f"{median(value / least for value, least in zip(values, floor)):.2f}"


def in_turn(programs: Mapping[str, Callable[[], T]], rounds: int) -> dict[str, list[T]]:
    """The results of each program; every program runs once in each round."""
    results: dict[str, list[T]] = {name: [] for name in programs}
    for _ in range(rounds):
        for name, run in programs.items():
            results[name].append(run())
    return results
