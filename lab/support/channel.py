"""One TCP or TLS connection: reads and writes with deadlines, orderly closes and resets.

A channel may be read by one thread while others write. OpenSSL allows one thread at a time in a
session, so every call into the socket happens under a lock and never blocks there; the waiting is
done outside, in poll().
"""

from __future__ import annotations

import os
import select
import socket
import ssl
import struct
import threading

from lab.support.waiting import Deadline, LabTimeout

_READ_LEN = 65536


class PeerClosed(ConnectionError):
    """The peer ended the connection (end of stream or reset)."""


class PeerReset(PeerClosed):
    """The peer ended the connection with a reset."""


def _closed_by(error: OSError) -> PeerClosed:
    reset = isinstance(error, (ConnectionResetError, BrokenPipeError))
    return PeerReset(str(error)) if reset else PeerClosed(str(error))


class Channel:
    """Owns a connected socket. Its calls raise PeerClosed once the connection is over."""

    def __init__(self, sock: socket.socket, *, wakeable: bool = False) -> None:
        """`wakeable` costs one more descriptor and lets `wake` end a waiting read."""
        self._sock = sock
        self._lock = threading.Lock()
        self._wake_fd = os.eventfd(0, os.EFD_NONBLOCK) if wakeable else -1
        self._closed = False
        self.local = sock.getsockname()
        sock.setblocking(False)

    @property
    def closed(self) -> bool:
        """Whether this side has closed the connection."""
        return self._closed

    def fileno(self) -> int:
        """The descriptor of the connection."""
        return self._sock.fileno()

    def read(self, within_secs: float) -> bytes:
        """What the peer sent, at most 64 KiB; b"" when nothing came in time or after a wake."""
        deadline = Deadline(within_secs)
        while True:
            wanted = select.POLLIN
            with self._lock:
                if self._closed:
                    raise PeerClosed("closed on this side")
                try:
                    data = self._sock.recv(_READ_LEN)
                    if data:
                        return data
                    raise PeerClosed("end of stream")
                except PeerClosed:
                    raise
                except (BlockingIOError, ssl.SSLWantReadError):
                    pass
                except ssl.SSLWantWriteError:
                    wanted = select.POLLOUT
                except (ssl.SSLError, OSError) as error:
                    raise _closed_by(error) from error
            if deadline.passed() or self._wait(wanted, deadline.left()):
                return b""

    def write(self, data: bytes, within_secs: float = 5.0) -> None:
        """Writes all of `data`; LabTimeout when the peer does not take it in time."""
        deadline = Deadline(within_secs)
        view = memoryview(data)
        while view:
            sent = 0
            wanted = select.POLLOUT
            with self._lock:
                if self._closed:
                    raise PeerClosed("closed on this side")
                try:
                    sent = self._sock.send(view)
                except (BlockingIOError, ssl.SSLWantWriteError):
                    pass
                except ssl.SSLWantReadError:
                    wanted = select.POLLIN
                except (ssl.SSLError, OSError) as error:
                    raise _closed_by(error) from error
            if sent:
                view = view[sent:]
            elif deadline.passed():
                raise LabTimeout(f"{len(view)} of {len(data)} bytes not taken by the peer")
            else:
                self._wait(wanted, deadline.left(), heed_wake=False)

    def _wait(self, wanted: int, secs: float, heed_wake: bool = True) -> bool:
        """Waits for readiness; true when woken instead."""
        poller = select.poll()
        poller.register(self._sock, wanted)
        if heed_wake and self._wake_fd >= 0:
            poller.register(self._wake_fd, select.POLLIN)
        ready = poller.poll(secs * 1000)
        if any(fd == self._wake_fd for fd, _ in ready):
            os.eventfd_read(self._wake_fd)
            return True
        return False

    def wake(self) -> None:
        """Ends the read that another thread waits in (or the next one). Wakeable channels only."""
        with self._lock:
            if not self._closed and self._wake_fd >= 0:
                os.eventfd_write(self._wake_fd, 1)

    def finish_sending(self) -> None:
        """Sends the end of the stream; reading goes on."""
        with self._lock:
            if not self._closed:
                # Not SSLSocket.shutdown, which would forget the session and read cipher text.
                socket.socket.shutdown(self._sock, socket.SHUT_WR)

    def close(self) -> None:
        """Closes the connection. Only from the reading thread, or from any while none reads."""
        self._end(with_reset=False)

    def reset(self) -> None:
        """Ends the connection with a reset, from the same threads as `close`."""
        self._end(with_reset=True)

    def _end(self, with_reset: bool) -> None:
        with self._lock:
            if self._closed:
                return
            self._closed = True
            if with_reset:
                linger = struct.pack("ii", 1, 0)
                self._sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
            self._sock.close()
            if self._wake_fd >= 0:
                os.close(self._wake_fd)


def client_tls_context() -> ssl.SSLContext:
    """TLS to a self-signed peer: encrypted, not verified."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def connect(
    address: str,
    port: int,
    *,
    source_ip: str = "",
    tls: bool = False,
    within_secs: float = 5.0,
    receive_buffer: int = 0,
) -> Channel:
    """Connects, with TLS after a handshake; OSError on failure. Sizes are bytes, 0: the default."""
    deadline = Deadline(within_secs)
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if receive_buffer:
            # Before connecting, because it limits the window offered to the peer.
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        if source_ip:
            sock.bind((source_ip, 0))
        sock.settimeout(deadline.left())
        sock.connect((address, port))
        if tls:
            sock.settimeout(max(deadline.left(), 0.01))
            sock = client_tls_context().wrap_socket(sock)
        return Channel(sock)
    except BaseException:
        sock.close()
        raise
