"""The encoders and audio receivers of the demonstration.

Each listens in a thread of its own. When its connection ends it reconnects by itself, as stations
do: it tries once a second until its relay is back and known to the connection server, which issues
the tickets.
"""

from __future__ import annotations

import threading
import time

from lab.audio.audio_wire import CHANNELS
from lab.audio.clip_listener import ClipListener
from lab.media import cea608
from lab.network.relay_network import RelayNetwork
from lab.play.account import Item
from lab.play.screen import say
from lab.protocol import messages
from lab.stations.audio_stations import AudioReceiver
from lab.stations.caption_stations import Encoder, Station
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout

#: The audio program that is played. Not 0, which two relays share before they register it.
PROGRAM = 1
_TURN_SECS = 0.2
_RETRY_SECS = 1.0
#: How often an audio listener reports what it received.
_REPORT_SECS = 1.0
_JOIN_SECS = 10.0


class Listener:
    """A station that listens, from its construction to `close`."""

    kind: type[Station] = Station
    #: The names of the flows that it receives, each a separate series of items.
    flows: tuple[str, ...] = ()

    def __init__(self, network: RelayNetwork, name: str, at: str) -> None:
        """Logs in to the relay named `at`; raises when that does not work."""
        self.name, self.at = name, at
        #: What was sent before this time (monotonic) need not arrive.
        self.awaited_from = 0.0
        #: What went wrong, in words; "" if nothing.
        self.error = ""
        #: When its connection ended, and when it was logged in again.
        self.losses: list[float] = []
        self.log_ins: list[float] = []
        self._network = network
        self._ending = False
        self._stop = threading.Event()
        self._station = network.station(self.kind, at=at, name=name)
        self.client_id = self._station.client_id
        self._settle(self._station)
        say(name, f"logged in to relay {at} as client {self.client_id}")
        self._thread = threading.Thread(target=self._run, name=name, daemon=True)
        self._thread.start()

    def arrived(self, flow: str) -> list[Item]:
        """What arrived so far, in order of arrival."""
        raise NotImplementedError

    def received_since(self, when: float) -> bool:
        """Whether something of every flow has arrived since `when`."""
        return all(items and items[-1].at > when for items in map(self.arrived, self.flows))

    def start_reporting(self) -> None:
        """From now on it reports how much arrives."""

    def expect_silence(self) -> None:
        """From now on it does not report that nothing arrives."""

    def expect_end(self) -> None:
        """From now on the relay may close the connection."""
        self._ending = True

    def read_to_end(self) -> None:
        """Waits until the connection has ended, so that everything is counted."""
        self._thread.join(_JOIN_SECS)

    def close(self) -> None:
        """Stops listening and closes the connection."""
        self._stop.set()
        self._thread.join(_JOIN_SECS)
        self._station.close()

    # -- what the kinds of listeners add ---------------------------------------------------

    def _settle(self, station: Station) -> None:
        """What has to be done after each log-in."""

    def _take_turn(self) -> None:
        """Listens for a short time; LabTimeout when nothing arrived."""
        raise NotImplementedError

    # -- the thread ------------------------------------------------------------------------

    def _run(self) -> None:
        while not self._stop.is_set():
            try:
                self._take_turn()
            except LabTimeout:
                continue
            except PeerClosed as error:
                if self._ending:
                    return
                self._note_loss(error)
                if not self._reconnect():
                    return
            except AssertionError as error:
                self.error = str(error)
                say(self.name, self.error)
                return

    def _note_loss(self, error: PeerClosed) -> None:
        self.losses.append(time.monotonic())
        say(self.name, f"has lost its connection ({error}) and tries to reconnect")
        self._station.close()

    def _reconnect(self) -> bool:
        """Tries until it succeeds; false when it should no longer try."""
        while not self._stop.wait(_RETRY_SECS) and not self._ending:
            try:
                self._station = self._log_in_again()
            except (OSError, AssertionError):
                continue
            self.log_ins.append(time.monotonic())
            away = self.log_ins[-1] - self.losses[-1]
            say(self.name, f"is logged in again after {away:.1f} s")
            return True
        return False

    def _log_in_again(self) -> Station:
        if not self._network.known(self.at).logged_in:
            raise LabTimeout("the relay is not logged in to the connection server")
        station = self._network.connect(self.kind, at=self.at, name=self.name)
        try:
            station.login(self.client_id, self._ticket_for(self.client_id))
            station.start_heartbeats()
            self._settle(station)
        except BaseException:
            station.close()
            raise
        return station

    def _ticket_for(self, client_id: int) -> bytes:
        return self._network.ticket_for(client_id, self.at)


class CaptionListener(Listener):
    """An encoder: prints the captions that it reads."""

    kind = Encoder
    flows = ("captions",)

    def __init__(self, network: RelayNetwork, name: str, at: str) -> None:
        self._decoder = cea608.Decoder()
        self._captions: list[Item] = []
        super().__init__(network, name, at)

    def arrived(self, flow: str) -> list[Item]:
        return list(self._captions)

    def _take_turn(self) -> None:
        caption = self._station.expect(messages.Caption, _TURN_SECS)
        self._captions.append(Item(time.monotonic(), caption.caption))
        for text in self._decoder.feed(caption.caption):
            say(self.name, f"reads  {text}")


class AudioListener(Listener):
    """An audio receiver with error correction: reports every second how much it received."""

    kind = AudioReceiver
    flows = ("audio", "FEC 1", "FEC 2")

    def __init__(self, network: RelayNetwork, name: str, at: str) -> None:
        self._clip_listeners: list[ClipListener] = []
        self._reported = [0] * len(CHANNELS)
        self._report_at = float("inf")
        self._silence_expected = False
        super().__init__(network, name, at)

    def start_reporting(self) -> None:
        self._report_at = time.monotonic() + _REPORT_SECS

    def expect_silence(self) -> None:
        self._silence_expected = True

    def arrived(self, flow: str) -> list[Item]:
        channel = self.flows.index(flow)
        heard = [one for each in list(self._clip_listeners) for one in each.arrived(channel)]
        return [Item(one.at, one.datagram) for one in heard]

    def _settle(self, station: Station) -> None:
        # A new socket each time: a station that starts again has a new port too.
        relay = self._network[self.at].relay
        station.listen(relay, self._ticket_for, PROGRAM)
        self._clip_listeners.append(ClipListener(station.audio(PROGRAM)))

    def _note_loss(self, error: PeerClosed) -> None:
        self._clip_listeners[-1].close()
        super()._note_loss(error)

    def close(self) -> None:
        self._stop.set()
        self._thread.join(_JOIN_SECS)
        for each in self._clip_listeners:
            each.close()
        super().close()

    def _take_turn(self) -> None:
        self._report()
        message = self._station.receive(_TURN_SECS)
        raise AssertionError(f"{self.name}: unexpected message {message}")

    def _report(self) -> None:
        now = time.monotonic()
        if now < self._report_at:
            return
        self._report_at = max(self._report_at, now - _REPORT_SECS) + _REPORT_SECS
        counts = [len(self.arrived(flow)) for flow in self.flows]
        audio, *fec = (count - before for count, before in zip(counts, self._reported))
        if self._silence_expected and counts == self._reported:
            return
        self._reported = counts
        corrections = " and ".join(str(one) for one in fec)
        say(self.name, f"gets   {audio} audio datagrams, {corrections} of error correction")
