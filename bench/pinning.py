"""Assigns processor cores: the daemon under test has one to itself."""

from __future__ import annotations

import os

_CORES = sorted(os.sched_getaffinity(0))
#: The daemon's core, and the core of the load program and of everything else.
DAEMON_CORE = _CORES[0]
LOAD_CORE = _CORES[-1]


def on_core(core: int) -> list[str]:
    """What to put before a command so that it runs on this core only."""
    return ["taskset", "-c", str(core)]


def stay_on_load_core() -> None:
    """Moves this process, and everything it starts from now on, off the daemon's core."""
    os.sched_setaffinity(0, {LOAD_CORE})
