"""The table and its file: one line for each daemon in each cell."""

from __future__ import annotations

import csv
from pathlib import Path

from bench.cells import RELAY_OTHER, Cell
from bench.measure import Outcome
from bench.statistic import Figure, figure, paired_ratio

Results = dict[tuple[Cell, str], Outcome]

_LATENCIES = ("p50_ns", "p99_ns", "p999_ns")


def head() -> str:
    return (
        f"{'cell':38} {'daemon':15} {'us CPU/delivery':>17} {'x floor':>8} {'deliveries/s':>13}"
        f" {'p50 us':>8} {'p99 us':>8} {'p99.9 us':>9} {'RSS MiB':>8}"
    )


def cpu(results: Results, cell: Cell, daemon: str) -> Figure | None:
    """Microseconds of processor time per delivery."""
    outcome = results.get((cell, daemon))
    return figure(outcome.cpu_us()) if outcome else None


def x_times(results: Results, cell: Cell, daemon: str, other: str) -> Figure | None:
    """The processor time of one daemon as a multiple of another's, run by run."""
    if (cell, daemon) not in results or (cell, other) not in results:
        return None
    return paired_ratio(results[cell, daemon].cpu_us(), results[cell, other].cpu_us())


def rows(results: Results, cell: Cell) -> list[str]:
    """The lines of a cell, for the daemons that have figures."""
    return [_row(results, cell, name) for name in cell.daemons if (cell, name) in results]


def _row(results: Results, cell: Cell, daemon: str) -> str:
    values = _values(results, cell, daemon)
    cpu_text = f"{values['cpu_us']:9.3f} ±{values['cpu_us_spread']:6.3f}"
    floor_text = f"{values['x_floor']:8.2f}" if values["x_floor"] else " " * 8
    latencies = [f"{values[key]:8.0f}" if values[key] else " " * 8 for key in _LATENCY_COLUMNS]
    return (
        f"{cell.name:38} {daemon:15} {cpu_text} {floor_text} {values['deliveries_per_s']:13.0f}"
        f" {' '.join(latencies)} {values['rss_mib']:9.1f}"
        f"{_versus_other_build(results, cell, daemon)}{_notes(cell, values)}"
    )


def _versus_other_build(results: Results, cell: Cell, daemon: str) -> str:
    """The relay's cost compared with another build of it, when that was measured."""
    times = x_times(results, cell, daemon, RELAY_OTHER) if daemon == "relay" else None
    return f"  {times.median:.3f} ±{times.spread:.3f} x other build" if times else ""


def _notes(cell: Cell, values: dict[str, float | str]) -> str:
    """What a line counts if not deliveries, and what went wrong."""
    notes = []
    if cell.unit != "delivery":
        notes.append(f"per {cell.unit}")
    if cell.kind == "reconnect":
        notes.append(f"{values['seconds']:.3f} s for all")
    if values["faults"]:
        notes.append(str(values["faults"]))
    return f"  {', '.join(notes)}" if notes else ""


_LATENCY_COLUMNS = ("p50_us", "p99_us", "p99.9_us")


def _values(results: Results, cell: Cell, daemon: str) -> dict[str, float | str]:
    """Every column of a line of the file."""
    outcome = results[cell, daemon]
    own = cpu(results, cell, daemon)
    x_floor = x_times(results, cell, daemon, cell.floor)
    latencies = {
        column: found.median / 1000 if (found := figure(outcome.values(key))) else ""
        for column, key in zip(_LATENCY_COLUMNS, _LATENCIES)
    }
    return {
        "cell": cell.name,
        "daemon": daemon,
        "cpu_us": own.median,
        "cpu_us_spread": own.spread,
        "x_floor": x_floor.median if x_floor else "",
        "deliveries_per_s": figure(outcome.per_sec()).median,
        **latencies,
        "rss_mib": outcome.memory.get("after", 0) / 2**20,
        "bytes_per_idle_client": outcome.bytes_per_idle() or "",
        "unit": cell.unit,
        "seconds": figure(outcome.seconds()).median,
        "runs": len(outcome.repetitions),
        "faults": outcome.faults(),
    }


def write_csv(results: Results, path: Path) -> None:
    """All figures, with the columns named in the first line."""
    lines = [_values(results, cell, daemon) for cell, daemon in results]
    if lines:
        with open(path, "w", newline="", encoding="utf-8") as file:
            writer = csv.DictWriter(file, fieldnames=list(lines[0]))
            writer.writeheader()
            writer.writerows(lines)
