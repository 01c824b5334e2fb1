"""What the relay executes for one message, counted by callgrind: instructions of the process, its
system calls, time look-ups and allocations. The same program gives the same numbers in each run,
whatever else the machine does."""

from __future__ import annotations

import dataclasses
import re
import subprocess
from pathlib import Path

from bench.daemons import BUILD, ROOT

#: Where callgrind's files of the last run are.
FOLDER = ROOT / "build" / "bench-instructions"

_TIME_LOOK_UPS = ("time", "clock_gettime")
_ALLOCATIONS = ("malloc", "calloc", "realloc")
_SECONDS = 60
#: A busy system may deliver a datagram late: such a run does not count.
_ATTEMPTS = 3


@dataclasses.dataclass(frozen=True)
class Way:
    """Messages that are sent in bursts of one length to some receivers."""

    kind: str
    receivers: int
    burst: int

    @property
    def name(self) -> str:
        bursts = f" in bursts of {self.burst}" if self.burst > 1 else ""
        verb = "switched" if self.kind == "caption" else "forwarded"
        return f"{self.kind} {verb} to {self.receivers}{bursts}"


WAYS = [
    Way("caption", 10, 1),
    Way("caption", 10, 20),
    Way("datagram", 10, 1),
    Way("datagram", 10, 20),
]


@dataclasses.dataclass(frozen=True)
class Count:
    """Per message."""

    way: Way
    instructions: float
    #: By the function of the C library that makes it.
    system_calls: dict[str, float]
    time_look_ups: float
    allocations: float

    def text(self) -> list[str]:
        calls = ", ".join(f"{name} {_short(n)}" for name, n in self.system_calls.items())
        return [
            f"instructions per {self.way.name}: {_short(self.instructions)}",
            f"    system calls {_short(sum(self.system_calls.values()))} ({calls}),"
            f" time look-ups {_short(self.time_look_ups)},"
            f" allocations {_short(self.allocations)}",
        ]

    def lines(self) -> list[tuple[str, float, str]]:
        return [
            (self.way.name, self.instructions, "instructions"),
            (self.way.name, sum(self.system_calls.values()), "system calls"),
            (self.way.name, self.time_look_ups, "time look-ups"),
            (self.way.name, self.allocations, "allocations"),
        ]


def _short(number: float) -> str:
    return f"{number:.3f}".rstrip("0").rstrip(".")


def count(way: Way) -> Count:
    """Runs the messages under callgrind."""
    FOLDER.mkdir(parents=True, exist_ok=True)
    profile = FOLDER / f"{way.kind}-{way.receivers}-{way.burst}.callgrind"
    messages = _run(way, profile)
    totals = Profile(profile.read_text(encoding="utf-8"))
    calls = {name: n / messages for name, n in sorted(totals.system_calls.items())}
    return Count(
        way,
        totals.instructions / messages,
        calls,
        totals.calls_of(_TIME_LOOK_UPS) / messages,
        totals.calls_of(_ALLOCATIONS) / messages,
    )


def _run(way: Way, profile: Path) -> int:
    """Returns the number of messages in the profile."""
    # Identical from the first instruction on: no path or environment whose length shifts the stack,
    # no functions that are resolved at their first call, and no inherited descriptors, because
    # clients are looked up by descriptor number.
    command = [
        "valgrind", "--tool=callgrind", "--quiet", f"--callgrind-out-file={profile}",
        "--instr-atstart=no", "--collect-systime=yes", "--compress-strings=no",
        "--compress-pos=no", "./relay_instructions", way.kind, str(way.receivers), str(way.burst),
    ]  # fmt: skip
    environment = {"PATH": "/usr/bin:/bin", "LD_BIND_NOW": "1"}
    for _ in range(_ATTEMPTS):
        done = subprocess.run(
            command, cwd=BUILD, env=environment, stdin=subprocess.DEVNULL, capture_output=True,
            close_fds=True, text=True, timeout=_SECONDS,
        )  # fmt: skip
        if done.returncode == 0:
            return int(re.search(r"^messages: (\d+)$", done.stdout, re.MULTILINE)[1])
    raise RuntimeError(f"{way.name}: {done.stderr.strip()}")


class Profile:
    """Callgrind's uncompressed output: blocks that begin with `fn=`, whose lines hold a position and
    costs; a line `calls=` precedes the costs of the function called."""

    def __init__(self, text: str) -> None:
        self.instructions = 0
        #: By function; only those that make any.
        self.system_calls: dict[str, int] = {}
        self._called: dict[str, int] = {}
        self._read(text)

    def calls_of(self, functions: tuple[str, ...]) -> int:
        """How often these were called, in all."""
        return sum(self._called.get(name, 0) for name in functions)

    def _read(self, text: str) -> None:
        events: list[str] = []
        function = called = ""
        of_called = False
        for line in text.splitlines():
            key, _, value = line.partition("=")
            if line.startswith("events: "):
                events = line.split()[1:]
            elif key == "fn":
                function = value
            elif key == "cfn":
                called = value
            elif key == "calls":
                self._called[called] = self._called.get(called, 0) + int(value.split()[0])
                of_called = True
            elif line[:1].isdigit():
                if not of_called:
                    self._add(function, dict(zip(events, map(int, line.split()[1:]))))
                of_called = False

    def _add(self, function: str, costs: dict[str, int]) -> None:
        self.instructions += costs.get("Ir", 0)
        if costs.get("sysCount"):
            name = function.lstrip("_")
            self.system_calls[name] = self.system_calls.get(name, 0) + costs["sysCount"]
