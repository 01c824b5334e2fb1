"""The stopwatch: waits for a processor are left out, all else counts."""

from __future__ import annotations

import os
import types
from pathlib import Path

import pytest

from lab.support import stopwatch
from lab.support.stopwatch import Stopwatch


@pytest.mark.parametrize(
    ("waited", "left"),
    [((5.0, 5.0), 2.0), ((5.0, 5.5), 1.5), ((5.0, 9.0), 0.0), ((5.0, 4.0), 2.0)],
    ids=["idle", "busy", "more waits than time", "a thread has ended"],
)
def test_waits_for_a_processor_are_left_out(monkeypatch, waited, left):
    times, waits = iter((10.0, 12.0)), iter(waited)
    clock = types.SimpleNamespace(monotonic=lambda: next(times))
    monkeypatch.setattr(stopwatch, "time", clock)
    monkeypatch.setattr(stopwatch, "_waited_secs", lambda _: next(waits))
    assert Stopwatch(os.getpid()).secs() == left


def test_the_waits_of_threads_are_added_up(tmp_path):
    """Running time, waiting time in nanoseconds, number of turns; a thread may have ended."""
    files = [tmp_path / "one", tmp_path / "two", tmp_path / "gone"]
    files[0].write_text("7000000000 1500000000 12\n")
    files[1].write_text("0 250000000 1\n")
    assert stopwatch._waited_secs(files) == 1.75  # noqa: SLF001


def test_the_kernel_reports_waits_here():
    """Without this the stopwatch counts the waits, too."""
    file = Path("/proc/self/schedstat")
    if file.exists():
        assert len(file.read_text().split()) == 3
