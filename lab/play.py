"""The performance: captions and speech cross two joined relays, undisturbed or with a fault.

    with Cluster() as cluster:
        outcome = Play(cluster, binary, seconds=20).perform()
    print(*play_summary.lines(outcome), sep="\\n")
"""

from __future__ import annotations

import time
from collections.abc import Callable
from pathlib import Path

from lab import messages
from lab.audio_player import ClipPlayer
from lab.audio_stations import AudioSource
from lab.audio_wire import CHANNELS
from lab.cluster import Cluster
from lab.play_account import Item, compare
from lab.play_faults import Fault
from lab.play_listeners import PROGRAM, AudioListener, CaptionListener, Listener
from lab.play_screen import say
from lab.play_speakers import CaptionSpeaker
from lab.play_summary import Flow, Outcome
from lab.relay_network import RelayNetwork
from lab.stations import Captioner
from lab.waiting import Deadline, LabTimeout, patient

_RELAYS = ("east", "west")
#: How long a run may take beyond its time until everything flows again after a fault.
_MORE_SECS = 30.0
#: How long it has to be seen to flow then.
_AFTER_SECS = 3.0
#: How long captions and datagrams may still be on their way after the last one was sent.
_ARRIVAL_SECS = 5.0
_TURN_SECS = 0.05


class Play:
    """One performance. Everything but `perform` is for the faults."""

    def __init__(
        self,
        cluster: Cluster,
        binary: Path,
        *,
        seconds: float,
        tls: bool = False,
        fault: Fault | None = None,
    ) -> None:
        self.cluster = cluster
        self.fault = fault
        self.outcome = Outcome(fault=fault.name if fault else "")
        with_backup = fault is not None and fault.name == "cs"
        self.network = RelayNetwork(
            cluster, _RELAYS, fec=True, tls=tls, backup=with_backup, binary=binary
        )
        self._seconds = seconds
        self._start = 0.0
        self._listeners: list[Listener] = []

    def perform(self) -> Outcome:
        """All of it, from the start of the network to its end."""
        with self.network:
            self._tell_who_stands_where()
            try:
                self._join()
                self._cast()
                self._play()
                self._end()
            finally:
                for listener in self._listeners:
                    listener.close()
        return self.outcome

    # -- before ----------------------------------------------------------------------------

    def _tell_who_stands_where(self) -> None:
        network = self.network
        how = "TLS" if network.tls else "plain TCP"
        say("connserver", f"stands at {network.server.address}:{network.server.port} ({how})")
        for name, node in network.nodes.items():
            relay, known = node.relay, network.known(name)
            port = relay.tls_port if network.tls else relay.tcp_port
            say(name, f"is logged in as relay {known.id}, serves clients at {relay.address}:{port}")

    def _join(self) -> None:
        say("connserver", "orders east to join west")
        start = time.monotonic()
        self.network.join(*_RELAYS, keep=True, audio=True)
        secs = time.monotonic() - start
        say("connserver", f"has them joined after {secs:.1f} s, with all audio programs")

    def _cast(self) -> None:
        network = self.network
        self.captioner = network.station(Captioner, at="east", name="captioner")
        self._source = network.station(AudioSource, at="east", name="source")
        self._source.go_on_air(
            network["east"].relay, lambda one: network.ticket_for(one, "east"), PROGRAM
        )
        for station in (self.captioner, self._source):
            say(station.name, f"logged in to relay east as client {station.client_id}")
        for number, name in enumerate(_RELAYS, start=1):
            self._add(CaptionListener, f"encoder {number}", name, self.captioner.client_id)
            self._add(AudioListener, f"receiver {number}", name, self._source.client_id)
        if self.fault is not None and self.fault.wants_newcomer:
            self.newcomer = CaptionListener(network, "encoder 3", "west")
            self.newcomer.awaited_from = float("inf")
            self._listeners.append(self.newcomer)

    def _add(self, kind: type[Listener], name: str, at: str, source_id: int) -> None:
        listener = kind(self.network, name, at)
        self._listeners.append(listener)
        self._route(source_id, listener, "the connection server")

    def _route(self, source_id: int, listener: Listener, who: str) -> None:
        audio = isinstance(listener, AudioListener)
        msg_class = messages.PIPE_AUDIO if audio else messages.PIPE_CAPTION
        self.network.route(source_id, listener.client_id, msg_class, keep=True)
        what = "audio" if audio else "captions"
        say("connserver", f"{who} has routed {what} of client {source_id} to {listener.name}")

    # -- the play --------------------------------------------------------------------------

    def _play(self) -> None:
        longest = self._seconds + patient(_MORE_SECS + _AFTER_SECS)
        self._captions = CaptionSpeaker(self.captioner, longest)
        self._clip = ClipPlayer(self._source.audio(PROGRAM), seconds=longest, fec=True)
        self._start = time.monotonic()
        for listener in self._listeners:
            listener.start_telling()
        self._captions.start()
        self._clip.start()
        try:
            if self.fault is not None:
                self.fault.play(self)
                self._wait_until_all_flows()
            self.wait_share(1)
        finally:
            self._try("captioner", self._captions.stop)
            self._try("source", self._clip.stop)

    def _wait_until_all_flows(self) -> None:
        """Returns in vain after a while: the summary then tells what does not flow."""
        since, deadline = time.monotonic(), Deadline(_MORE_SECS)
        while not all(one.heard_since(since) for one in self._listeners):
            if deadline.passed():
                return
            self.wait(_TURN_SECS)
        self.wait(_AFTER_SECS)

    def _try(self, who: str, action: Callable[[], object]) -> None:
        """What fails is part of the outcome."""
        try:
            action()
        except (OSError, AssertionError) as error:
            self.outcome.problems.append(f"{who}: {error}")

    def wait(self, seconds: float) -> None:
        """Lets the play go on for so long."""
        time.sleep(max(0.0, seconds))

    def wait_share(self, share: float) -> None:
        """Lets the play go on until this share of its time is over."""
        self.wait(self._start + share * self._seconds - time.monotonic())

    def route_newcomer(self, who: str) -> None:
        """From now on the encoder that came without a route is to get all captions."""
        try:
            self._route(self.captioner.client_id, self.newcomer, who)
        except LabTimeout as error:
            self.outcome.problems.append(f"the route to {self.newcomer.name}: {error}")
        self.newcomer.awaited_from = time.monotonic()

    # -- after -----------------------------------------------------------------------------

    def _end(self) -> None:
        self._await_the_last()
        for listener in self._listeners:
            listener.expect_end()
        for name, node in self.network.nodes.items():
            self._try(name, lambda name=name, node=node: self._stop(name, node.relay.stop))
            reports = node.relay.sanitizer_reports()
            self.outcome.problems += [f"{name}: {line}" for line in reports]
        for listener in self._listeners:
            listener.read_to_end()
        self._judge()

    def _stop(self, name: str, stop: Callable[[], int]) -> None:
        status = stop()
        self.outcome.statuses[name] = status
        say(name, f"ended with status {status}")

    def _await_the_last(self) -> None:
        """Waits until every listener has what was sent last, if that comes at all."""
        deadline = Deadline(_ARRIVAL_SECS)
        for listener in self._listeners:
            for flow in listener.flows:
                last = self._sent(flow)[-1:]
                while last and not deadline.passed():
                    if any(one.data == last[0].data for one in listener.arrived(flow)[-1:]):
                        break
                    self.wait(_TURN_SECS)

    def _sent(self, flow: str) -> list[Item]:
        if flow in CaptionListener.flows:
            return self._captions.sent()
        channel = CHANNELS[AudioListener.flows.index(flow)]
        return [Item(*one) for one in zip(self._clip.times(), self._clip.sent(channel))]

    def _judge(self) -> None:
        outcome = self.outcome
        for flow in (*CaptionListener.flows, *AudioListener.flows):
            outcome.sent[flow] = len(self._sent(flow))
        for listener in self._listeners:
            touched = self.fault is not None and self.fault.touches(listener.at)
            for name in listener.flows:
                sent, arrived = self._sent(name), listener.arrived(name)
                account = compare(sent, arrived, listener.awaited_from)
                outcome.flows.append(Flow(listener.name, listener.at, name, account, touched))
            if listener.error:
                outcome.problems.append(f"{listener.name}: {listener.error}")
            if listener.partings and not touched:
                outcome.problems.append(f"{listener.name}: its connection broke")
        for server in (self.network.server, self.network.backup):
            outcome.problems += server.problems if server is not None else []
