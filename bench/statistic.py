"""Medians and spreads."""

from __future__ import annotations

import dataclasses
import statistics
from collections.abc import Sequence


@dataclasses.dataclass(frozen=True)
class Figure:
    """The median of some runs, and half their interquartile range."""

    median: float
    spread: float


def figure(values: Sequence[float]) -> Figure | None:
    """The figure of these values; None if there are none."""
    if not values:
        return None
    if len(values) == 1:
        return Figure(values[0], 0.0)
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return Figure(middle, (high - low) / 2)


def paired_ratio(values: Sequence[float], of: Sequence[float]) -> Figure | None:
    """The ratio of adjacent runs, pair by pair."""
    return figure([value / other for value, other in zip(values, of) if other])
