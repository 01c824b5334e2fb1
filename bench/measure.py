"""Runs the daemons of one cell, each with its own load program; their repetitions take turns."""

from __future__ import annotations

import contextlib
import dataclasses
import itertools
import json
import subprocess
import threading
from collections.abc import Iterator

from bench.cells import Cell
from bench.daemons import BUILD, Daemon
from bench.pinning import LOAD_CORE, on_core

#: A run that takes longer has hung.
_MOST_SECS = 90.0
#: The share of messages that a moderate run may skip because the load program was late.
_MOST_MISSED = 0.05


class CellFailed(Exception):
    """There are no figures; the text says why."""


@dataclasses.dataclass
class Outcome:
    """What the load program printed: a dictionary for each repetition, and one on memory."""

    repetitions: list[dict[str, float]]
    memory: dict[str, float]

    def values(self, key: str) -> list[float]:
        """One value of every repetition that has it."""
        return [one[key] for one in self.repetitions if key in one]

    def cpu_us(self) -> list[float]:
        """Microseconds of processor time per delivery (or whatever unit the cell counts), for every
        repetition."""
        return [one["cpu_ns"] / one["deliveries"] / 1000 for one in self.repetitions]

    def per_sec(self) -> list[float]:
        """Deliveries per second, for every repetition."""
        return [one["deliveries"] / one["wall_ns"] * 1e9 for one in self.repetitions]

    def seconds(self) -> list[float]:
        """How long every repetition took."""
        return [one["wall_ns"] / 1e9 for one in self.repetitions]

    def bytes_per_idle(self) -> float:
        """The daemon's resident bytes per idle client; 0 when there were too few to tell."""
        idle = self.memory.get("idle", 0)
        return (self.memory["after"] - self.memory["before"]) / idle if idle >= 1000 else 0.0

    def lost_per_million(self) -> float:
        """Deliveries lost, repeated or changed, per million."""
        bad = sum(self.values("lost")) + sum(self.values("wrong"))
        due = bad + sum(self.values("deliveries"))
        return 1e6 * bad / due if due else 0.0

    def faults(self) -> str:
        """What went wrong; empty when nothing did."""
        lost = sum(self.values("lost"))
        wrong = sum(self.values("wrong"))
        beats = sum(self.values("missed_beats")) + sum(self.values("sent"))
        missed = sum(self.values("missed_beats")) / beats if beats else 0.0
        incomplete = sum(not one["complete"] for one in self.repetitions)
        named = {"lost": lost, "wrong": wrong, "runs not finished": incomplete}
        if missed > _MOST_MISSED:
            named["% of the rate not held"] = 100 * missed
        return ", ".join(f"{count:.0f} {name}" for name, count in named.items() if count)


@contextlib.contextmanager
def _load(arguments: list[str]) -> Iterator[subprocess.Popen[str]]:
    """The load program, killed if it does not finish in time."""
    process = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", *on_core(LOAD_CORE), *arguments],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )
    watchdog = threading.Timer(_MOST_SECS, process.kill)
    watchdog.start()
    try:
        yield process
    finally:
        watchdog.cancel()
        process.kill()
        process.communicate()


class _Session:
    """A daemon and its load program, ready for the next repetition."""

    def __init__(
        self, batch: list[Cell], name: str, daemon: Daemon, stack: contextlib.ExitStack
    ) -> None:
        options = batch[0].load_options(name, [cell.fanout for cell in batch])
        arguments = [str(BUILD / "relay_load"), *daemon.load_options(), *options]
        self._load = stack.enter_context(_load(arguments))
        if self._load.stdout.readline() != "ready\n":
            raise CellFailed(self._load.stderr.read().strip())
        #: What the load program has printed.
        self.lines: list[dict[str, float]] = []
        #: Whether it has ended.
        self.done = False
        self._go_on(f"{stack.enter_context(daemon.running())}\n")

    def take_turn(self) -> None:
        """Runs one repetition."""
        self._go_on("\n")

    def _go_on(self, answer: str) -> None:
        try:
            self._load.stdin.write(answer)
            self._load.stdin.flush()
        except BrokenPipeError:
            pass  # it has ended, and has said why
        for line in map(json.loads, self._load.stdout):
            if line["what"] == "turn":
                return
            self.lines.append(line)
        if self._load.wait() != 0:
            raise CellFailed(self._load.stderr.read().strip() or "killed: it took too long")
        self.done = True


def measure(
    batch: list[Cell], daemons: dict[str, Daemon]
) -> tuple[dict[tuple[Cell, str], Outcome], list[str]]:
    """The figures of every cell with every daemon, whose repetitions take turns; and what failed.
    Daemons are started in sequence, and none while another is measured."""
    outcomes = {}
    failures = []
    with contextlib.ExitStack() as stack:
        waiting: dict[str, _Session] = {}
        for name, daemon in daemons.items():
            try:
                waiting[name] = _Session(batch, name, daemon, stack)
            except CellFailed as error:
                failures.append(f"{batch[0].name}, {name}: {error}")
        for first in itertools.count():
            if not waiting:
                break
            for name, session in _rotated(list(waiting.items()), first):
                try:
                    session.take_turn()
                except CellFailed as error:
                    failures.append(f"{batch[0].name}, {name}: {error}")
                    del waiting[name]
                    continue
                if session.done:
                    outcomes.update(_outcomes(batch, name, session.lines))
                    del waiting[name]
    in_order = [(cell, name) for name in daemons for cell in batch if (cell, name) in outcomes]
    return {key: outcomes[key] for key in in_order}, failures


def _rotated(sessions: list[tuple[str, _Session]], first: int) -> list[tuple[str, _Session]]:
    """Each session starts a round in its turn, because its predecessor affects the caches."""
    first %= len(sessions)
    return sessions[first:] + sessions[:first]


def _outcomes(
    batch: list[Cell], name: str, lines: list[dict[str, float]]
) -> Iterator[tuple[tuple[Cell, str], Outcome]]:
    memory = next((line for line in lines if line["what"] == "memory"), {})
    for cell in batch:
        yield (cell, name), Outcome(_repetitions_of(cell, lines), memory)


def _repetitions_of(cell: Cell, lines: list[dict[str, float]]) -> list[dict[str, float]]:
    return [one for one in lines if one["what"] == "repetition" and one["fanout"] == cell.fanout]
