"""Helpers of the switching tests: fences, exact images, receivers that only collect bytes.

A message that must come later proves what was or was not sent before it. Direct messages reach
their destination regardless of routes, so they serve as such fences.
"""

from __future__ import annotations

import itertools
import select
import socket
import threading
from collections.abc import Callable, Iterable

from lab.protocol import messages, wire
from lab.relay.relay import Relay
from lab.server.connection_server import ConnectionServer
from lab.stations.caption_stations import Station
from lab.support.waiting import LabTimeout, patient

#: A type that relays deliver to the destination in the header.
TYPE_DIRECT = 9

#: The beginning of a line that relays log once a minute, between any other lines.
LOAD_REPORT = "Load reporting: "

_TAIL_LEN = 1024
_numbers = itertools.count(1)


def arriving_image(message: messages.Message) -> bytes:
    """The image as its destinations see it: of odd length, with the pad of the frame."""
    return wire.to_frame(message.image())[1:]


def images(received: Iterable[messages.Message]) -> list[bytes]:
    return [message.received_image for message in received]


def _fence_for(receiver: Station) -> messages.Opaque:
    token = b"fence %d~" % next(_numbers)
    return messages.Opaque(TYPE_DIRECT, token, dest_id=receiver.client_id)


def _until(
    fence: messages.Opaque, receiver: Station, within_secs: float
) -> list[messages.Message]:
    def is_fence(message: messages.Message) -> bool:
        return isinstance(message, messages.Opaque) and message.raw_payload.startswith(
            fence.raw_payload
        )

    return receiver.receive_until(is_fence, within_secs)[:-1]


def got_before_fence(
    sender: Station, receiver: Station, within_secs: float = 10.0
) -> list[messages.Message]:
    """All that `receiver` got of what `sender` had sent so far."""
    fence = _fence_for(receiver)
    sender.send(fence)
    return _until(fence, receiver, within_secs)


def got_before_order_fence(
    server: ConnectionServer, receiver: Station, within_secs: float = 10.0
) -> list[messages.Message]:
    """Waits until the relay has carried out all orders so far; returns what `receiver` got until
    then."""
    fence = _fence_for(receiver)
    server.orders.send(fence)
    return _until(fence, receiver, within_secs)


def line_count(relay: Relay, station: Station, text: str) -> int:
    """How many log lines contain `text`, of all that the relay had to log until now. The log is
    written by a thread of its own, so a line that must come later is waited for: that about a
    message of `station` under an unknown id."""
    unknown_id = 0x70000000 + next(_numbers)
    station.send(messages.Caption(sender_id=unknown_id))
    relay.log.expect(f"Message with invalid sender id string {unknown_id} ", 10)
    return relay.log.count(text)


def server_heard(server: ConnectionServer, since: int) -> list[messages.Message]:
    """What the server got, apart from heartbeats and arrivals of clients."""
    usual = (messages.Heartbeat, messages.ConnectConfirm)
    heard = server.record.messages_of(messages.Message, since)
    return [message for message in heard if not isinstance(message, usual)]


class Drain:
    """Collects the raw bytes that a plain station gets, in a thread of its own."""

    def __init__(self, station: Station) -> None:
        self._sock = socket.socket(fileno=socket.dup(station.fileno()))
        self._sock.setblocking(False)
        self._parts: list[bytes] = []
        self._stop = threading.Event()
        self._changed = threading.Condition()
        self._tail = b""
        self.length = 0
        self.ended = False
        self._thread = threading.Thread(target=self._run, name="drain", daemon=True)
        self._thread.start()

    def _run(self) -> None:
        poller = select.poll()
        poller.register(self._sock, select.POLLIN)
        while not self._stop.is_set():
            if not poller.poll(50):
                continue
            try:
                data = self._sock.recv(1 << 18)
            except OSError:
                data = b""
            with self._changed:
                self._take(data)
                self._changed.notify_all()
            if not data:
                return

    def _take(self, data: bytes) -> None:
        self.ended = not data
        self._parts.append(data)
        self._tail = (self._tail + data)[-_TAIL_LEN:]
        self.length += len(data)

    def _wait_for(self, check: Callable[[], bool], within_secs: float, what: str) -> None:
        with self._changed:
            if not self._changed.wait_for(check, patient(within_secs)):
                raise LabTimeout(f"no {what} within {within_secs} s; {self.length} bytes came")

    def wait_for_length(self, length: int, within_secs: float) -> None:
        """Waits until `length` bytes have come, heartbeats included, or the stream has ended."""
        self._wait_for(lambda: self.length >= length or self.ended, within_secs, f"{length} bytes")

    def wait_for_image(self, image: bytes, within_secs: float) -> None:
        """Waits until this image has come, followed by nothing but heartbeats."""
        self._wait_for(lambda: image in self._tail, within_secs, f"image {image!r}")

    def close(self) -> None:
        self._stop.set()
        self._thread.join(patient(5))
        self._sock.close()

    def images(self) -> list[bytes]:
        """The whole images so far, without heartbeats."""
        reader = wire.FrameReader()
        reader.feed(b"".join(self._parts))
        return [image for image in reader if image[0] != messages.Heartbeat.TYPE]


def in_threads(calls: Iterable[Callable[[], object]]) -> list[object]:
    """Runs all calls at once and returns their results; the first exception is raised."""
    results: list[object] = []
    threads: list[threading.Thread] = []
    for index, call in enumerate(calls):
        results.append(None)

        def run(index: int = index, call: Callable[[], object] = call) -> None:
            try:
                results[index] = call()
            except BaseException as error:  # handed to the caller below
                results[index] = error

        threads.append(threading.Thread(target=run, daemon=True))
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for result in results:
        if isinstance(result, BaseException):
            raise result
    return results
