"""UDP sockets at evenly spaced ports, with room for bursts and a count of kernel drops."""

from __future__ import annotations

import contextlib
import random
import select
import socket
import struct
from collections.abc import Iterable, Iterator

#: Below the range from which the kernel takes ports for outgoing connections.
_PORT_RANGE = range(12000, 30000)
_BIND_ATTEMPTS = 200
#: Room for some thousand datagrams, so that a burst is not lost in our own receive buffer.
_RECEIVE_BUFFER = 8 << 20
_MAX_DATAGRAM = 65535
#: The most datagrams read in one go, so that an endless flow does not block the reader.
_READ_AT_ONCE = 2000
#: Socket options of Linux that Python does not name: a receive buffer beyond the limit for
#: ordinary users; a note of how many datagrams found the buffer full.
_SO_RCVBUFFORCE, _SO_RXQ_OVFL = 33, 40
_OVERFLOW_COUNT = struct.Struct("=I")


def _prepare(sock: socket.socket) -> None:
    sock.setblocking(False)
    sock.setsockopt(socket.SOL_SOCKET, _SO_RXQ_OVFL, 1)
    try:
        sock.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, _RECEIVE_BUFFER)
    except PermissionError:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, _RECEIVE_BUFFER)


def _bind_all(address: str, ports: Iterable[int]) -> list[socket.socket]:
    """Sockets bound to all of `ports`; OSError, and none bound, if one is taken."""
    with contextlib.ExitStack() as undo:
        bound = []
        for port in ports:
            sock = undo.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
            sock.bind((address, port))
            _prepare(sock)
            bound.append(sock)
        undo.pop_all()
        return bound


class UdpRow:
    """Sockets bound to ports at given steps; each is named by its index below."""

    def __init__(self, address: str, steps: Iterable[int], first_port: int = 0) -> None:
        """`steps` are added to the first port, which is `first_port` (OSError when that or one
        of the others is taken), or one chosen at random where all are free."""
        steps = list(steps)
        self.sockets = self._bind_somewhere(address, steps, first_port)
        self._overflows = [0] * len(self.sockets)
        self._poll = select.poll()
        self._index_of: dict[int, int] = {}
        for index, sock in enumerate(self.sockets):
            self._index_of[sock.fileno()] = index
            self._poll.register(sock, select.POLLIN)

    @staticmethod
    def _bind_somewhere(address: str, steps: list[int], first_port: int) -> list[socket.socket]:
        if first_port:
            return _bind_all(address, [first_port + step for step in steps])
        for base in random.sample(_PORT_RANGE, _BIND_ATTEMPTS):
            with contextlib.suppress(OSError):
                return _bind_all(address, [base + step for step in steps])
        raise RuntimeError(f"no free UDP ports at {address}")

    @property
    def overflows(self) -> int:
        """How many datagrams the kernel dropped because we did not read them in time; known
        from the next datagram on that is read."""
        return sum(self._overflows)

    def wait(self, secs: float) -> list[int]:
        """Which sockets are readable; empty when none is in time."""
        return sorted(self._index_of[fd] for fd, _ in self._poll.poll(max(0.0, secs) * 1000))

    def drain(self, index: int) -> Iterator[tuple[bytes, tuple[str, int]]]:
        """The datagrams waiting at a socket, each with its source."""
        sock = self.sockets[index]
        for _ in range(_READ_AT_ONCE):
            try:
                data, notes, _, source = sock.recvmsg(_MAX_DATAGRAM, 64)
            except BlockingIOError:
                return
            for level, kind, value in notes:
                if (level, kind) == (socket.SOL_SOCKET, _SO_RXQ_OVFL):
                    (self._overflows[index],) = _OVERFLOW_COUNT.unpack(value)
            yield data, source

    def send(self, data: bytes, to: tuple[str, int], within_secs: float) -> bool:
        """Sends from the first socket; false when the kernel does not take it in time."""
        sock = self.sockets[0]
        try:
            sock.sendto(data, to)
        except BlockingIOError:
            waiting = select.poll()
            waiting.register(sock, select.POLLOUT)
            if not waiting.poll(within_secs * 1000):
                return False
            sock.sendto(data, to)
        return True

    def close(self) -> None:
        """Closes all sockets."""
        for sock in self.sockets:
            sock.close()
