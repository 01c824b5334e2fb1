"""Plays a clip of speech into a relay in real time, as a live source does.

    player = ClipPlayer(source.audio(2), seconds=5, fec=True)
    with ClipListener(receiver.audio(2)) as listener:
        player.play()
        listener.wait_for(len(player.sent()))
    assert listener.verdict(player.sent()).perfect
"""

from __future__ import annotations

import threading
import time
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

from lab.audio import audio_wire
from lab.audio.audio_socket import AudioSocket
from lab.audio.clip_listener import ClipListener, Verdict
from lab.media import ogg_opus

__all__ = ["CLIP", "ClipListener", "ClipPlayer", "Verdict", "schedule"]

#: The README.md beside it says how it was made.
CLIP = Path(__file__).resolve().parents[1] / "media" / "clips" / "welcome.opus"


class Cue(NamedTuple):
    """A packet and when it is sent, in seconds from the start."""

    at: float
    packet: bytes


def schedule(packets: list[ogg_opus.Packet], seconds: float) -> list[Cue]:
    """The packets to send within `seconds`: the clip, repeated or truncated."""
    cues: list[Cue] = []
    if not packets:
        return cues
    # Counted in samples: sums of fractions would drift.
    samples, end = 0, round(seconds * audio_wire.RTP_CLOCK_RATE)
    while True:
        for packet in packets:
            if samples >= end:
                return cues
            cues.append(Cue(samples / audio_wire.RTP_CLOCK_RATE, packet.data))
            samples += round(packet.seconds * audio_wire.RTP_CLOCK_RATE)


class ClipPlayer:
    """Sends a clip through an audio socket that is registered to send.

    No two datagrams are equal: each packet is sent as RTP with a number and a time. With `fec`
    channel 1 carries the parity of each packet and the one before, channel 2 that of each
    packet and the second before.
    """

    def __init__(
        self,
        audio: AudioSocket,
        packets: list[ogg_opus.Packet] | None = None,
        *,
        seconds: float | None = None,
        fec: bool = False,
    ) -> None:
        """`seconds`: how long to play; the clip's length by default."""
        self.audio = audio
        packets = ogg_opus.read(CLIP) if packets is None else packets
        if seconds is None:
            seconds = sum(packet.seconds for packet in packets)
        self.seconds = seconds
        self.cues = schedule(packets, seconds)
        #: How late the latest packet was sent.
        self.worst_lateness_secs = 0.0
        self._channels = audio_wire.CHANNELS if fec else audio_wire.CHANNELS[:1]
        self._sent: dict[int, list[bytes]] = {channel: [] for channel in audio_wire.CHANNELS}
        self._times: list[float] = []
        self._stop = threading.Event()
        self._thread: threading.Thread | None = None
        self._error: Exception | None = None

    def sent(self, channel: int = 0) -> list[bytes]:
        """The datagrams sent so far on a channel, in order."""
        return list(self._sent[channel])

    def times(self) -> list[float]:
        """When each packet so far was sent, on all its channels (monotonic seconds)."""
        return list(self._times)

    # -- playing ---------------------------------------------------------------------------

    def play(self) -> None:
        """Plays to the end, or until `stop`, in the calling thread. A late packet
        delays no other: all times count from the start."""
        start = time.monotonic()
        for number, cue in enumerate(self.cues):
            if self._stop.wait(max(0.0, start + cue.at - time.monotonic())):
                return
            now = time.monotonic()
            self.worst_lateness_secs = max(self.worst_lateness_secs, now - start - cue.at)
            self._times.append(now)
            for channel, payload in self._payloads(number):
                datagram = audio_wire.audio_datagram(self.audio.client_id, payload)
                # Noted first, so that it is here when it arrives.
                self._sent[channel].append(datagram)
                self.audio.send_raw(datagram, channel)
        self._stop.wait(max(0.0, start + self.seconds - time.monotonic()))

    def _payloads(self, number: int) -> Iterator[tuple[int, bytes]]:
        """Channel and RTP packet, for all channels in use."""
        cue = self.cues[number]
        for channel in self._channels:
            packet = cue.packet
            if channel:
                before = self.cues[number - channel].packet if number >= channel else b""
                packet = audio_wire.parity(packet, before)
            yield channel, audio_wire.rtp_packet(
                packet, number, cue.at, self.audio.client_id, channel
            )

    def start(self) -> ClipPlayer:
        """Plays in a thread of its own."""
        self._thread = threading.Thread(target=self._run, name="clip-player", daemon=True)
        self._thread.start()
        return self

    def _run(self) -> None:
        try:
            self.play()
        except Exception as error:  # raised again by finish()
            self._error = error

    def finish(self) -> None:
        """Waits until the thread has played to the end; raises the error that ended it early."""
        if self._thread is not None:
            self._thread.join()
        if self._error is not None:
            raise self._error

    def stop(self) -> None:
        """Stops playing early."""
        self._stop.set()
        self.finish()
