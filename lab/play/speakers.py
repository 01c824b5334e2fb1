"""The captioner of the demonstration: plays a caption file in real time.

The audio source is a lab.audio.clip_player.ClipPlayer.
"""

from __future__ import annotations

import threading
import time
from pathlib import Path

from lab.media import cea608, scc
from lab.play.account import Item
from lab.play.screen import say
from lab.stations.caption_stations import Captioner

CLIP = Path(__file__).resolve().parents[1] / "media" / "clips" / "welcome.scc"
#: The pause between the last caption of the clip and its next round.
_PAUSE_SECS = 1.5


def schedule(cues: list[scc.Cue], seconds: float) -> list[scc.Cue]:
    """The cues to play within `seconds`: the clip, repeated or truncated."""
    round_secs = cues[-1].seconds + _PAUSE_SECS
    played: list[scc.Cue] = []
    start = 0.0
    while True:
        for cue in cues:
            if start + cue.seconds > seconds:
                return played
            played.append(scc.Cue(start + cue.seconds, cue.data))
        start += round_secs


class CaptionSpeaker:
    """Sends captions in a thread of its own, from `start` to `stop`."""

    def __init__(self, captioner: Captioner, seconds: float) -> None:
        """`seconds`: how long to play unless stopped."""
        self._captioner = captioner
        self._cues = schedule(scc.read(CLIP), seconds)
        self._sent: list[Item] = []
        self._sent_by_clock: list[Item] = []
        self._error: Exception | None = None
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name="caption-speaker", daemon=True)

    def start(self) -> None:
        """Starts playing."""
        self._thread.start()

    def stop(self) -> None:
        """Stops playing; raises the error that ended it early."""
        self._stop.set()
        if self._thread.ident is not None:
            self._thread.join()
        if self._error is not None:
            raise self._error

    def sent(self) -> list[Item]:
        """What was sent so far."""
        return list(self._sent)

    def sent_by_clock(self) -> list[Item]:
        """The same, with wall-clock times: seconds since 1970."""
        return list(self._sent_by_clock)

    def _run(self) -> None:
        try:
            self._play()
        except Exception as error:  # raised again by stop()
            self._error = error

    def _play(self) -> None:
        decoder = cea608.Decoder()
        start = time.monotonic()
        for cue in self._cues:
            if self._stop.wait(max(0.0, start + cue.seconds - time.monotonic())):
                return
            # In a file bit 7 is parity; in the network it denotes the field.
            data = cea608.strip_parity(cue.data)
            for text in decoder.feed(data):
                say(self._captioner.name, f"writes {text}")
            # Noted first, so that it is here when it arrives.
            self._sent_by_clock.append(Item(time.time(), data))
            self._sent.append(Item(time.monotonic(), data))
            self._captioner.caption(data)
