"""What the demonstration shows while it runs."""

from __future__ import annotations

import threading
import time

_screen = threading.Lock()


def say(who: str, text: str) -> None:
    """Prints one line: the time, who, what. Safe from any thread."""
    now = time.time()
    clock = time.strftime("%H:%M:%S", time.localtime(now)) + f".{int(now * 1000) % 1000:03d}"
    with _screen:
        print(f"{clock}  {who:<11} {text}", flush=True)
