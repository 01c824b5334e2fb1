"""Waits for conditions with deadlines.

Slow builds (sanitizers) and busy machines get more time through the environment variable
LAB_PATIENCE: every deadline of the lab is multiplied by it (default 1).
"""

from __future__ import annotations

import os
import time
from typing import Callable, TypeVar

T = TypeVar("T")

_POLL_SECS = 0.02


class LabTimeout(AssertionError):
    """Something expected did not happen in time."""


def patient(secs: float) -> float:
    """`secs` multiplied by the patience of this run."""
    return secs * float(os.environ.get("LAB_PATIENCE", "1"))


class Deadline:
    """A point in time, `secs` (made patient) from now, on the monotonic clock."""

    def __init__(self, secs: float) -> None:
        self._at = time.monotonic() + patient(secs)

    def left(self) -> float:
        """Seconds left, never below 0."""
        return max(0.0, self._at - time.monotonic())

    def passed(self) -> bool:
        """Whether no time is left."""
        return self.left() <= 0


def wait_until(check: Callable[[], T], within_secs: float, what: str = "") -> T:
    """Polls `check` until its result is true and returns that; LabTimeout after the deadline.

    For conditions that give no notification, like rows in a table.
    """
    deadline = Deadline(within_secs)
    while True:
        result = check()
        if result:
            return result
        if deadline.passed():
            raise LabTimeout(f"not within {within_secs} s: {what or check}; last result {result!r}")
        time.sleep(min(_POLL_SECS, deadline.left()))
