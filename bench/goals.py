"""The figures to reach, checked against the results of the same run."""

from __future__ import annotations

import dataclasses
import statistics
from collections.abc import Iterator

from bench.cells import ADMISSION, FLAT_OUT, IDLE, MODERATE, RECONNECT, RELAY_FEW, TCP, UDP, Cell
from bench.report import Results, cpu, x_times
from bench.statistic import Figure, paired_ratio

_KIB = 1024.0


@dataclasses.dataclass(frozen=True)
class Check:
    """One goal in one cell: the measured figure must not exceed the limit."""

    goal: str
    cell: str
    measured: Figure
    limit: float
    #: Whether the figure must be below the limit, not equal to it.
    below: bool = False

    @property
    def verdict(self) -> str:
        """A goal also counts as met when the figure is within the spread of its own runs."""
        if self._within(self.measured.median):
            return "met"
        if self._within(self.measured.median - self.measured.spread):
            return "met within spread"
        return f"missed: {self.measured.median:.2f}"

    def _within(self, value: float) -> bool:
        return value < self.limit if self.below else value <= self.limit

    def line(self) -> str:
        sign = "<" if self.below else "<="
        return (
            f"{self.goal:44} {self.cell:40} {self.measured.median:8.2f} ±{self.measured.spread:5.2f}"
            f" {sign:>2} {self.limit:5.2f}  {self.verdict}"
        )


def _against(results: Results, cell: Cell, other: str) -> Figure | None:
    """The relay's processor time as a multiple of another daemon's."""
    return x_times(results, cell, "relay", other)


def _against_best_peer(results: Results, cell: Cell, key: str) -> Figure | None:
    """One value of the relay's repetitions as a multiple of the smallest among the peers."""
    peers = [results[cell, peer].values(key) for peer in cell.peers if (cell, peer) in results]
    known = [values for values in peers if values]
    if not known:
        return None
    return paired_ratio(results[cell, "relay"].values(key), min(known, key=statistics.median))


def _moderate(results: Results, cell: Cell) -> Iterator[Check]:
    if cell.kind != TCP or cell.pace != MODERATE or cell.tls:
        return
    if times := _against(results, cell, cell.floor):
        yield Check("moderate: x floor", cell.name, times, 1.10)
    for peer in cell.peers:
        if times := _against(results, cell, peer):
            yield Check(f"moderate: x {peer}", cell.name, times, 1.0, below=True)
    for key, name in (("p50_ns", "p50"), ("p99_ns", "p99")):
        if times := _against_best_peer(results, cell, key):
            yield Check(f"moderate: {name} x best peer's", cell.name, times, 1.0)


def _flat_out(results: Results, cell: Cell) -> Iterator[Check]:
    if cell.kind != TCP or cell.pace != FLAT_OUT or cell.tls:
        return
    if times := _against(results, cell, cell.floor):
        yield Check("flat out: x floor", cell.name, times, 1.8)
    peers = [times for peer in cell.peers if (times := _against(results, cell, peer))]
    if peers:
        yield Check(
            "flat out: x best peer", cell.name, max(peers, key=lambda one: one.median), 0.9
        )


def _tls(results: Results, cell: Cell) -> Iterator[Check]:
    if cell.tls and (times := _against(results, cell, cell.floor)):
        yield Check("TLS: x floor", cell.name, times, 1.15)


def _udp_moderate(results: Results, cell: Cell) -> Iterator[Check]:
    if cell.kind != UDP or cell.pace != MODERATE:
        return
    if times := _against(results, cell, cell.floor):
        yield Check("UDP moderate: x floor", cell.name, times, 1.10)
    if times := _against(results, cell, "coturn"):
        yield Check("UDP moderate: x coturn", cell.name, times, 1.0, below=True)


def _udp_flat_out(results: Results, cell: Cell) -> Iterator[Check]:
    if cell.kind != UDP or cell.pace != FLAT_OUT:
        return
    if times := _against(results, cell, cell.floor):
        yield Check("UDP flat out: x floor", cell.name, times, 1.5)
    # With one receiver most of the work is receiving datagrams, which is the same for both.
    if cell.fanout > 1 and (times := _against(results, cell, "coturn")):
        yield Check("UDP flat out: x coturn", cell.name, times, 0.35)


def _udp_lost(results: Results, cell: Cell) -> Iterator[Check]:
    """Nothing may be lost that the floor does not lose."""
    if cell.kind == UDP and (cell, cell.floor) in results:
        lost, floors = (results[cell, name].lost_per_million() for name in ("relay", cell.floor))
        yield Check("UDP: lost or wrong per million", cell.name, Figure(lost, 0.0), floors)


def _idle(results: Results, cell: Cell) -> Iterator[Check]:
    if cell.idle != IDLE[-1]:
        return
    outcome = results[cell, "relay"]
    if outcome.bytes_per_idle():
        kib = Figure(outcome.bytes_per_idle() / _KIB, 0.0)
        yield Check("memory: KiB per idle client", cell.name, kib, 8.0)
    if times := x_times(results, cell, "relay", RELAY_FEW):
        yield Check(f"idle clients: x with {IDLE[0]} of them", cell.name, times, 1.05)


def _admission(results: Results, cell: Cell) -> Iterator[Check]:
    if not cell.tls and (times := _against(results, cell, cell.floor)):
        yield Check("admission: x floor", cell.name, times, 1.5)


#: The goals of each kind of cell. Each takes the results and a cell in which the relay has figures.
_GOALS = {
    TCP: [_moderate, _flat_out, _tls, _idle],
    UDP: [_udp_moderate, _udp_flat_out, _udp_lost, _idle],
    ADMISSION: [_admission],
    RECONNECT: [],
}


def checks(results: Results) -> list[Check]:
    """Every goal in every cell that was measured."""
    cells = [cell for cell, daemon in results if daemon == "relay"]
    return [
        check
        for kind, goals in _GOALS.items()
        for goal in goals
        for cell in cells
        if cell.kind == kind
        for check in goal(results, cell)
    ]


def summary(found: list[Check]) -> list[str]:
    """A line for each goal: in how many cells it is met; then the cells in which it is not."""
    lines = []
    for goal in dict.fromkeys(check.goal for check in found):
        verdicts = [check.verdict for check in found if check.goal == goal]
        met = verdicts.count("met")
        within = verdicts.count("met within spread")
        lines.append(
            f"{goal:44} met {met}, met within spread {within}, missed {len(verdicts) - met - within}"
        )
    missed = [check.line() for check in found if check.verdict.startswith("missed")]
    return [*lines, "", "Missed:", *missed] if missed else lines
