"""The stations of the demonstration, and the routes between them.

At the first relay a captioner and an audio source; at every relay an encoder and an audio receiver.
"""

from __future__ import annotations

from lab.network.relay_network import RelayNetwork
from lab.play.listeners import PROGRAM, AudioListener, CaptionListener, Listener
from lab.play.screen import say
from lab.protocol import messages
from lab.stations.audio_stations import AudioSource
from lab.stations.caption_stations import Captioner


class Cast:
    """Logs the stations in and orders their routes; they listen from then on, until `close`."""

    def __init__(self, network: RelayNetwork) -> None:
        self.listeners: list[Listener] = []
        self._network = network
        self._home = next(iter(network.nodes))
        self.captioner = network.station(Captioner, at=self._home, name="captioner")
        self.source = network.station(AudioSource, at=self._home, name="source")
        for station in (self.captioner, self.source):
            say(station.name, f"logged in to relay {self._home} as client {station.client_id}")

    def enter(self) -> None:
        """Puts the source on the air and adds a listener of each kind at every relay."""
        self.source.go_on_air(
            self._network[self._home].relay,
            lambda client_id: self._network.ticket_for(client_id, self._home),
            PROGRAM,
        )
        for number, name in enumerate(self._network.nodes, start=1):
            self.route(self.add(CaptionListener, f"encoder {number}", name))
            self.route(self.add(AudioListener, f"receiver {number}", name))

    def add(self, kind: type[Listener], name: str, at: str) -> Listener:
        """One more listener, without a route."""
        listener = kind(self._network, name, at)
        self.listeners.append(listener)
        return listener

    def route(self, listener: Listener) -> None:
        """Has the connection server order the route to a listener, and waits for it."""
        audio = isinstance(listener, AudioListener)
        source = self.source if audio else self.captioner
        msg_class = messages.PIPE_AUDIO if audio else messages.PIPE_CAPTION
        self._network.route(source, listener.client_id, msg_class, keep=True)
        what = "audio" if audio else "captions"
        say("connserver", f"ordered the {what} of {source.name} to {listener.name}")

    def close(self) -> None:
        """Closes the listeners; the network closes the others."""
        for listener in self.listeners:
            listener.close()
