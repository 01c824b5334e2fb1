"""The output of a child process, line by line, with waits."""

from __future__ import annotations

import threading
from typing import IO

from lab.support.waiting import Deadline, LabTimeout


class ProcessLog:
    """Reads a stream in a thread of its own until it ends."""

    def __init__(self) -> None:
        self.lines: list[str] = []
        self._changed = threading.Condition()
        self._ended = True
        self._thread: threading.Thread | None = None

    def attach(self, stream: IO[bytes]) -> None:
        """Starts reading `stream`; lines read from an earlier one are kept."""
        self._ended = False
        self._thread = threading.Thread(
            target=self._run, args=(stream,), name="process-log", daemon=True
        )
        self._thread.start()

    def _run(self, stream: IO[bytes]) -> None:
        with stream:
            for raw in stream:
                with self._changed:
                    line = raw.decode("utf-8", "backslashreplace").rstrip("\n")
                    self.lines.append(line)
                    self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def join(self, secs: float = 20.0) -> None:
        """Waits until the stream has ended and every line has been read."""
        if self._thread is not None:
            self._thread.join(secs)

    def mark(self) -> int:
        """A point in the log: `since=mark` looks only at later lines."""
        with self._changed:
            return len(self.lines)

    def expect(self, text: str, within_secs: float = 5.0, *, since: int = 0) -> str:
        """The first line that contains `text`, old or new. Fails at once when the process has
        ended without it."""
        deadline = Deadline(within_secs)
        with self._changed:
            while True:
                while since < len(self.lines):
                    line = self.lines[since]
                    since += 1
                    if text in line:
                        return line
                if self._ended:
                    raise LabTimeout(f"the process ended without {text!r}{self._tail()}")
                if not self._changed.wait(deadline.left()) and deadline.passed():
                    raise LabTimeout(f"no {text!r} within {within_secs} s{self._tail()}")

    def expect_in_order(self, *texts: str, within_secs: float = 5.0, since: int = 0) -> None:
        """Waits until lines with these texts have come, in this order."""
        deadline = Deadline(within_secs)
        for text in texts:
            with self._changed:
                while True:
                    found = self._find(text, since)
                    if found >= 0:
                        since = found + 1
                        break
                    late = self._ended or deadline.passed()
                    if late:
                        raise LabTimeout(f"no {text!r} in its place{self._tail()}")
                    self._changed.wait(deadline.left())

    def _find(self, text: str, since: int) -> int:
        for index in range(since, len(self.lines)):
            if text in self.lines[index]:
                return index
        return -1

    def count(self, text: str, *, since: int = 0) -> int:
        """How many lines contain `text` so far."""
        with self._changed:
            return sum(text in line for line in self.lines[since:])

    def text(self) -> str:
        """All lines so far."""
        with self._changed:
            return "\n".join(self.lines)

    def _tail(self) -> str:
        return "; last lines:\n  " + "\n  ".join(self.lines[-15:])
