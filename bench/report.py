"""The table: one line for each daemon in each cell."""

from __future__ import annotations

import statistics

from bench.cells import Cell
from bench.measure import Outcome

Results = dict[tuple[Cell, str], Outcome]

_HEAD = (
    f"{'cell':32} {'daemon':12} {'us CPU/delivery':>17} {'x floor':>8} {'deliveries/s':>13}"
    f" {'p50 us':>8} {'p99 us':>8} {'p99.9 us':>9} {'RSS MiB':>8}"
)


def median(values: list[float]) -> float:
    return statistics.median(values) if values else 0.0


def spread(values: list[float]) -> float:
    """Half the distance between the quartiles: what a repeated run differs by."""
    if len(values) < 2:
        return 0.0
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return (high - low) / 2


def cpu(results: Results, cell: Cell, daemon: str) -> float:
    """The median processor time per delivery in microseconds; 0 when there is none."""
    outcome = results.get((cell, daemon))
    return median(outcome.cpu_us()) if outcome else 0.0


def head() -> str:
    return _HEAD


def rows(results: Results, cell: Cell) -> list[str]:
    """The lines of a cell, of the daemons that have figures."""
    return [_row(results, cell, name) for name in cell.daemons if (cell, name) in results]


def _row(results: Results, cell: Cell, daemon: str) -> str:
    outcome = results[cell, daemon]
    floor = cpu(results, cell, cell.floor)
    ratio = f"{cpu(results, cell, daemon) / floor:8.2f}" if floor else f"{'':8}"
    times = [f"{median(outcome.values(key)) / 1000:8.0f}" for key in ("p50_ns", "p99_ns", "p999_ns")]
    latencies = " ".join(times) if outcome.values("p50_ns") else " " * 26
    faults = outcome.faults()
    return (
        f"{cell.name:32} {daemon:12} {median(outcome.cpu_us()):9.3f} ±{spread(outcome.cpu_us()):6.3f}"
        f" {ratio} {median(outcome.per_sec()):13.0f} {latencies:26}"
        f" {outcome.memory.get('after', 0) / 2**20:9.1f}{'  ' + faults if faults else ''}"
    )
