"""Receives a program in the background and compares what arrived with what was sent."""

from __future__ import annotations

import dataclasses
import threading
from collections import defaultdict, deque

from lab.audio.audio_socket import AudioSocket, Heard
from lab.protocol import wire
from lab.support.waiting import Deadline, LabTimeout

#: How soon the thread notices that it has to stop.
_POLL_SECS = 0.05


@dataclasses.dataclass(frozen=True)
class Verdict:
    """What became of a series of datagrams."""

    sent: int
    received: int
    #: Received, but equal to nothing that was sent.
    changed: int
    #: Sent, and nothing arrived in its place, not even changed.
    lost: int
    #: Received after one that was sent later.
    out_of_order: int
    #: Received more often than sent.
    duplicates: int
    #: The longest time between two arrivals.
    longest_gap_secs: float

    @property
    def perfect(self) -> bool:
        """Everything arrived unchanged, once, in order; if nothing arrived, nothing was sent."""
        return self.received == self.sent and not (
            self.changed or self.lost or self.out_of_order or self.duplicates
        )


def judge(sent: list[bytes], arrived: list[Heard]) -> Verdict:
    """Compares what was sent with what arrived, byte by byte."""
    awaited: defaultdict[bytes, deque[int]] = defaultdict(deque)
    for index, datagram in enumerate(sent):
        awaited[datagram].append(index)
    changed = duplicates = out_of_order = 0
    newest = -1
    for heard in arrived:
        indexes = awaited.get(heard.datagram)
        if indexes is None:
            changed += 1
        elif not indexes:
            duplicates += 1
        else:
            index = indexes.popleft()
            out_of_order += index < newest
            newest = max(newest, index)
    missing = sum(len(indexes) for indexes in awaited.values())
    times = [heard.at for heard in arrived]
    return Verdict(
        sent=len(sent),
        received=len(arrived),
        changed=changed,
        lost=max(0, missing - changed),
        out_of_order=out_of_order,
        duplicates=duplicates,
        longest_gap_secs=max((b - a for a, b in zip(times, times[1:])), default=0.0),
    )


class ClipListener:
    """Collects the datagrams of an audio socket in a thread of its own, from its construction
    to `close`; meanwhile nothing else may read the socket."""

    def __init__(self, audio: AudioSocket) -> None:
        self.audio = audio
        self._arrived: list[Heard] = []
        self._changed = threading.Condition()
        self._stop = False
        self._thread = threading.Thread(target=self._run, name="clip-listener", daemon=True)
        self._thread.start()

    def __enter__(self) -> ClipListener:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Stops collecting once all that has arrived is read; the socket stays open."""
        self._stop = True
        self._thread.join(10)

    def _run(self) -> None:
        while True:
            stopping = self._stop
            heard = self.audio.receive_waiting(0.0 if stopping else _POLL_SECS)
            if heard:
                with self._changed:
                    self._arrived += heard
                    self._changed.notify_all()
            elif stopping:
                return

    def arrived(self, channel: int = 0, marked_id: int | None = None) -> list[Heard]:
        """What arrived so far on a channel; only from one sender, if its id is given."""
        # The whole prefix: a datagram with any other is not from that sender.
        prefix = b"" if marked_id is None else wire.to_datagram(b"", marked_id)
        with self._changed:
            return [
                heard
                for heard in self._arrived
                if heard.channel == channel and heard.datagram.startswith(prefix)
            ]

    def wait_for(
        self,
        count: int,
        within_secs: float = 5.0,
        *,
        channel: int = 0,
        marked_id: int | None = None,
    ) -> None:
        """Waits until `count` have arrived; LabTimeout when they do not."""
        deadline = Deadline(within_secs)
        with self._changed:
            while (got := len(self.arrived(channel, marked_id))) < count:
                if not self._changed.wait(deadline.left()) and deadline.passed():
                    raise LabTimeout(
                        f"{got} of {count} datagrams on channel {channel} within {within_secs} s, "
                        f"{self.audio.overflows} dropped by our own kernel"
                    )

    def verdict(
        self, sent: list[bytes], *, channel: int = 0, marked_id: int | None = None
    ) -> Verdict:
        """Judges what arrived so far on a channel, from all senders or one of them."""
        return judge(sent, self.arrived(channel, marked_id))
