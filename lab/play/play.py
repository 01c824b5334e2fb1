"""The performance: captions and speech cross two joined relays, with or without a fault.

    with Cluster() as cluster:
        outcome = Play(cluster, binary, seconds=20).perform()
    print(*summary.lines(outcome), sep="\\n")
"""

from __future__ import annotations

import time
from collections.abc import Callable
from pathlib import Path

from lab.audio.audio_wire import CHANNELS
from lab.audio.clip_player import ClipPlayer
from lab.database.cluster import Cluster
from lab.network.relay_network import RelayNetwork
from lab.play.account import Item, compare
from lab.play.archive import NAME, WITHIN_SECS, Archive, awaited
from lab.play.cast import Cast
from lab.play.faults import Fault
from lab.play.listeners import PROGRAM, AudioListener, CaptionListener, Listener
from lab.play.screen import say
from lab.play.speakers import CaptionSpeaker
from lab.play.summary import Flow, Outcome
from lab.support.waiting import Deadline, LabTimeout, patient

#: The captioner and the source are at the first one; the second one is killed by a fault.
RELAYS = ("east", "west")
#: Relays that join may need several periods of the limit on log-ins until all audio is registered.
_JOIN_SECS = 60.0
#: How long a run may take beyond its time until all traffic flows again after a fault.
_MORE_SECS = 40.0
#: How long it is watched flowing then.
_AFTER_SECS = 3.0
#: How long captions and datagrams may be in transit after the last one was sent.
_ARRIVAL_SECS = 5.0
#: How long captions may take to the archive, for which the relay checks every 15 s.
_ARCHIVE_SECS = 25.0
_TURN_SECS = 0.05


class Play:
    """One performance, as faults know it (lab.play.faults.Performance)."""

    cast: Cast
    newcomer: Listener

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
        self.outcome = Outcome(fault=fault.name if fault else "")
        self.archive = Archive()
        self.network = RelayNetwork(
            cluster,
            RELAYS,
            fec=True,
            tls=tls,
            backup=fault is not None and fault.wants_backup,
            configs={name: self.archive.config(name) for name in RELAYS},
            binary=binary,
        )
        self._fault = fault
        self._seconds = seconds

    def wait(self, seconds: float) -> None:
        """Lets the play go on for that long."""
        time.sleep(max(0.0, seconds))

    def wait_share(self, share: float) -> None:
        """Lets the play go on until this share of its time is over."""
        self.wait(self.outcome.start + share * self._seconds - time.monotonic())

    def route_newcomer(self) -> None:
        """Orders a route to the encoder that has none; it has to get every caption from now on."""
        self._try("the new route", lambda: self.cast.route(self.newcomer))
        self.newcomer.awaited_from = time.monotonic()

    # -- before ----------------------------------------------------------------------------

    def perform(self) -> Outcome:
        """All of it, from the start of the network to its end."""
        with self.archive, self.network:
            self._show_addresses()
            self._join()
            self.cast = Cast(self.network)
            try:
                self.cast.enter()
                if self._fault is not None and self._fault.wants_newcomer:
                    self.newcomer = self.cast.add(CaptionListener, "encoder 3", RELAYS[1])
                    self.newcomer.awaited_from = float("inf")
                self._play()
                self._end()
            finally:
                self.cast.close()
        return self.outcome

    def _show_addresses(self) -> None:
        network = self.network
        how = "TLS" if network.tls else "plain TCP"
        say("connserver", f"listens at {network.server.address}:{network.server.port} ({how})")
        for name, node in network.nodes.items():
            port = node.relay.tls_port if network.tls else node.relay.tcp_port
            where = f"{node.relay.address}:{port} ({how})"
            say(name, f"is logged in as relay {network.known(name).id}, serves clients at {where}")

    def _join(self) -> None:
        opener, peer = RELAYS
        say("connserver", f"ordered {opener} to join {peer}")
        start, since = time.monotonic(), self.network.mark()
        self.network.join(opener, peer, keep=True)
        self.network.wait_audio_joined(opener, peer, _JOIN_SECS, since=since)
        secs = time.monotonic() - start
        say(opener, f"is joined to {peer}, all audio programs registered, after {secs:.1f} s")

    # -- the play --------------------------------------------------------------------------

    def _play(self) -> None:
        # Only a fault may extend it.
        longest = self._seconds + (2 * patient(_MORE_SECS) if self._fault is not None else 0)
        self._captions = CaptionSpeaker(self.cast.captioner, longest)
        self._clip = ClipPlayer(self.cast.source.audio(PROGRAM), seconds=longest, fec=True)
        self.outcome.start = time.monotonic()
        for listener in self.cast.listeners:
            listener.start_reporting()
        try:
            self._captions.start()
            self._clip.start()
            if self._fault is not None:
                self._try("the fault", lambda: self._fault.play(self))
                self._wait_until_all_flows()
            self.wait_share(1)
            if self._fault is None:
                # Its last packet may be due slightly after the end of the play.
                self._try("source", self._clip.finish)
        finally:
            for who, speaker in (("captioner", self._captions), ("source", self._clip)):
                self._try(who, speaker.stop)

    def _wait_until_all_flows(self) -> None:
        """Gives up after a while: the summary then tells what does not flow."""
        since, deadline = time.monotonic(), Deadline(_MORE_SECS)
        while not all(one.received_since(since) for one in self.cast.listeners):
            if deadline.passed():
                return
            self.wait(_TURN_SECS)
        self.wait(_AFTER_SECS)

    def _try(self, what: str, action: Callable[[], object]) -> None:
        """Notes a failure as part of the outcome."""
        try:
            action()
        except (OSError, AssertionError) as error:
            self.outcome.note_problem(what, error)

    # -- after -----------------------------------------------------------------------------

    def _end(self) -> None:
        self._wait_for_the_last()
        for listener in self.cast.listeners:
            listener.expect_silence()
        self._try(NAME, self._wait_for_the_archive)
        for listener in self.cast.listeners:
            listener.expect_end()
        for name in self.network.nodes:
            self._try(f"relay {name}", lambda name=name: self._stop_relay(name))
        for listener in self.cast.listeners:
            listener.read_to_end()
        self._judge()

    def _stop_relay(self, name: str) -> None:
        relay = self.network[name].relay
        try:
            status = relay.stop()
        except LabTimeout:
            relay.kill()
            raise
        say(name, f"ended with status {status}")
        self.outcome.statuses[name] = status
        self.outcome.problems += [f"relay {name}: {line}" for line in relay.sanitizer_reports()]

    def _wait_for_the_last(self) -> None:
        """Waits until every listener has what was sent last, if it arrives at all."""
        deadline = Deadline(_ARRIVAL_SECS)
        for listener in self.cast.listeners:
            for flow in listener.flows:
                last = [one.data for one in self._sent(flow)[-1:]]
                while last != [one.data for one in listener.arrived(flow)[-1:]]:
                    if deadline.passed():
                        return
                    self.wait(_TURN_SECS)

    def _wait_for_the_archive(self) -> None:
        """Waits until all captions due are archived, if they ever are."""
        count, deadline = len(awaited(self._captions.sent_by_clock())), Deadline(_ARCHIVE_SECS)
        if not self.archive.holds(count):
            say(NAME, "is not complete yet: relays check every 15 s for captions to post")
        while not self.archive.holds(count) and not deadline.passed():
            self.wait(_TURN_SECS)

    def _sent(self, flow: str) -> list[Item]:
        if flow in CaptionListener.flows:
            return self._captions.sent()
        channel = CHANNELS[AudioListener.flows.index(flow)]
        return [Item(*one) for one in zip(self._clip.times(), self._clip.sent(channel))]

    def _judge(self) -> None:
        for flow in (*CaptionListener.flows, *AudioListener.flows):
            self.outcome.sent[flow] = len(self._sent(flow))
        for listener in self.cast.listeners:
            self._judge_listener(listener)
        self._try(NAME, self._judge_archive)
        for server in (self.network.server, self.network.backup):
            self.outcome.problems += server.record.problems if server is not None else []

    def _judge_listener(self, listener: Listener) -> None:
        touched = self._fault is not None and self._fault.touches(listener.at)
        for name in listener.flows:
            account = compare(self._sent(name), listener.arrived(name), listener.awaited_from)
            self.outcome.flows.append(Flow(listener.name, name, account, touched))
        if listener.error:
            self.outcome.problems.append(f"{listener.name}: {listener.error}")
        if listener.losses and not touched:
            self.outcome.problems.append(f"{listener.name}: its connection broke")

    def _judge_archive(self) -> None:
        zero = time.time() - time.monotonic()
        account = self.archive.account(self._captions.sent_by_clock(), zero)
        flow = Flow(NAME, "captions", account, within_secs=patient(WITHIN_SECS))
        self.outcome.flows.append(flow)
        client_id = self.cast.captioner.client_id
        self.outcome.problems += self.archive.unexpected_posts(RELAYS[0], client_id)
