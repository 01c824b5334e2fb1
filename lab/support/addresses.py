"""Loopback addresses reserved for this process, so that parallel test processes never share one.

Relays reach a plain connection server at port 9736 of its host and nowhere else, so every server
needs its own address. A process reserves whole blocks 127.a.b.0/24 by binding an abstract Unix
socket named after the block. Such names have the lifetime of the network namespace and the process,
exactly as the addresses do, and leave nothing behind.
"""

from __future__ import annotations

import os
import random
import socket
import threading

_FIRST_HOST, _LAST_HOST = 1, 254
#: Below the range from which the kernel takes ports for outgoing connections.
_PORT_RANGE = range(12000, 30000)

_lock = threading.Lock()
_marks: list[socket.socket] = []
_owner_pid = 0
_block = ""
_next_host = 0


def _reserve_block() -> str:
    """Marks and returns a block "127.a.b" that no other process holds."""
    start = os.getpid() * 7
    for step in range(253 * 256):
        number = (start + step) % (253 * 256)
        block = f"127.{1 + number // 256}.{number % 256}"
        mark = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            mark.bind(f"\0tessel-lab-{block}")
        except OSError:
            mark.close()
            continue
        _marks.append(mark)
        return block
    raise RuntimeError("no free block of loopback addresses")


def new_address() -> str:
    """A loopback address not given out before, in this process or another."""
    global _owner_pid, _block, _next_host
    with _lock:
        if _owner_pid != os.getpid() or _next_host > _LAST_HOST:
            _block, _next_host, _owner_pid = _reserve_block(), _FIRST_HOST, os.getpid()
        address = f"{_block}.{_next_host}"
        _next_host += 1
        return address


def _bindable(address: str, port: int, kind: socket.SocketKind) -> bool:
    with socket.socket(socket.AF_INET, kind) as probe:
        try:
            probe.bind((address, port))
        except OSError:
            return False
        return True


def free_port(address: str = "127.0.0.1") -> int:
    """A TCP port that can be bound at `address` now."""
    for port in random.sample(_PORT_RANGE, 200):
        if _bindable(address, port, socket.SOCK_STREAM):
            return port
    raise RuntimeError(f"no free TCP port at {address}")


def free_audio_base(address: str = "127.0.0.1") -> int:
    """A UDP port p such that p, p + 2 .. p + 10 and the same + 100 and + 200 can be bound."""
    for port in random.sample(_PORT_RANGE, 200):
        wanted = [port + 2 * i + fec for i in range(6) for fec in (0, 100, 200)]
        if all(_bindable(address, one, socket.SOCK_DGRAM) for one in wanted):
            return port
    raise RuntimeError(f"no free UDP ports at {address}")
