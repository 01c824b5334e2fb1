"""Measures the time that a relay takes for something, without waits for a processor.

    watch = Stopwatch(relay.pid)
    captioner.caption(b"AB")
    encoder.receive_caption()
    assert watch.secs() < 1.0

On a busy machine every process waits for a processor, which says nothing about how soon the relay
handles its work. The kernel counts these waits; they are left out. On an idle machine there are
none.
"""

from __future__ import annotations

import time
from collections.abc import Iterable
from pathlib import Path


def _waited_secs(files: Iterable[Path]) -> float:
    """How long threads were ready to run without a processor, so far."""
    waited = 0
    for file in files:
        try:
            waited += int(file.read_text().split()[1])
        except (OSError, IndexError):
            pass  # that thread has ended
    return waited / 1e9


class Stopwatch:
    """Runs from its construction."""

    def __init__(self, pid: int) -> None:
        """`pid`: the relay's, whose main thread does all the switching. Our own threads take turns
        in one interpreter, so all of them count."""
        self._relay = Path(f"/proc/{pid}/schedstat")
        self._waited = self._waits()
        self._begun = time.monotonic()

    def _waits(self) -> float:
        return _waited_secs([self._relay, *Path("/proc/self/task").glob("*/schedstat")])

    def secs(self) -> float:
        """The time so far, without the waits for a processor."""
        passed = time.monotonic() - self._begun
        return max(0.0, passed - max(0.0, self._waits() - self._waited))
