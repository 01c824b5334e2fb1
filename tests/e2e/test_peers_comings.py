"""A peer relay that is killed, stopped or ended, and comes back, while captions and audio run. The
server that keeps relays joined is told of the loss and repairs it by itself."""

from __future__ import annotations

import contextlib
import threading

import pytest
from switching_tools import got_before_fence

from lab.audio.clip_listener import ClipListener
from lab.audio.clip_player import ClipPlayer
from lab.protocol import messages
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION, LostConnection
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.waiting import Deadline, LabTimeout

_PROGRAM = 3


class Traffic:
    """Endless captions and audio from the relay "east" to stations of "east" and "west"."""

    def __init__(self, network) -> None:
        self.network = network
        self.captioner = network.station(Captioner, at="east")
        self.source = network.station(AudioSource, at="east")
        self.near = network.station(Encoder, at="east")
        self.near_audio = network.station(AudioReceiver, at="east")
        east, ticket_for = network["east"].relay, network.known("east").ticket_for
        self.source.go_on_air(east, ticket_for, _PROGRAM)
        self.near_audio.listen(east, ticket_for, _PROGRAM)
        network.route(self.captioner, self.near, PIPE_CAPTION, keep=True)
        network.route(self.source, self.near_audio, PIPE_AUDIO, keep=True)
        self.far = self.far_audio = None
        self.captions: list[bytes] = []
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._caption, daemon=True)
        self.player = ClipPlayer(self.source.audio(_PROGRAM), seconds=600)

    def __enter__(self):
        self.listener = ClipListener(self.near_audio.audio(_PROGRAM))
        self._thread.start()
        self.player.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join()
        self.player.stop()
        self.listener.close()

    def _caption(self) -> None:
        while not self._stop.wait(0.02):
            self.captions.append(b"%d" % len(self.captions))
            self.captioner.caption(self.captions[-1])

    def arrive_at_west(self) -> None:
        """New stations there, under the ids of the ones before."""
        ids = [one and one.client_id for one in (self.far, self.far_audio)]
        self.far = self.network.station(Encoder, at="west", client_id=ids[0])
        self.far_audio = self.network.station(AudioReceiver, at="west", client_id=ids[1])
        west = self.network["west"].relay
        self.far_audio.listen(west, self.network.known("west").ticket_for, _PROGRAM)
        self.network.route(self.captioner, self.far, PIPE_CAPTION, keep=True)
        self.network.route(self.source, self.far_audio, PIPE_AUDIO, keep=True)

    def reaches_west(self, within_secs: float = 20.0) -> None:
        """Asserts that captions and audio sent from now on arrive there."""
        deadline, first = Deadline(within_secs), len(self.captions)
        sent = len(self.player.sent())
        self.far.receive_until(
            lambda message: isinstance(message, messages.Caption) and int(message.caption) > first,
            deadline.left(),
        )
        audio = self.far_audio.audio(_PROGRAM)
        while audio.receive(deadline.left()) not in self.player.sent()[sent:]:
            pass

    def nothing_is_lost_at_east(self) -> None:
        """Asserts that no caption and no datagram was lost, changed, repeated or late."""
        self.__exit__()
        got = got_before_fence(self.captioner, self.near)
        assert [one.caption for one in got] == self.captions
        with contextlib.suppress(LabTimeout):
            self.listener.wait_for(len(self.player.sent()), 2)
        assert self.listener.verdict(self.player.sent()).perfect


@pytest.fixture(name="traffic")
def fixture_traffic(network):
    network.join("east", "west", keep=True, audio=True)
    with Traffic(network) as traffic:
        traffic.arrive_at_west()
        traffic.reaches_west()
        yield traffic


@pytest.mark.parametrize("how", ["killed", "ended"])
def test_a_peer_that_goes_comes_back_under_its_id(network, traffic, how):
    server, since, marks = network.server, network.server.record.mark(), network.mark()
    if how == "killed":
        network.kill("west")
    else:
        assert network["west"].relay.stop() == 0
    server.record.wait_for_type(LostConnection, since=since, relay="east", client_id=1001)
    traffic.far.close()
    assert network.restart("west").id == 1001
    network.wait_joined("east", "west", since=marks)
    traffic.arrive_at_west()
    network.wait_audio_joined("east", "west", since=marks)
    traffic.reaches_west()
    traffic.nothing_is_lost_at_east()


@pytest.mark.long
def test_a_stopped_peer_is_dropped_and_comes_back(network, traffic):
    """Beyond the 15 s of silence: the running relay continues and reports the loss. The other one
    finds its links gone when it continues, and they are joined again."""
    server, since, marks = network.server, network.server.record.mark(), network.mark()
    with network["west"].relay.stopped():
        server.record.wait_for_type(LostConnection, 30, since=since, relay="east", client_id=1001)
        network["east"].log.expect("Dropping connect to client ID 1001, socket ")
        traffic.far.close()
    network.wait_logged_in("west", 40)
    network.wait_joined("east", "west", 40, since=marks)
    traffic.arrive_at_west()
    network.wait_audio_joined("east", "west", since=marks)
    traffic.reaches_west()
    traffic.nothing_is_lost_at_east()


def test_a_peer_with_a_full_buffer_does_not_block_the_others(network, traffic):
    """Stopped for a moment only: what waits in the kernel arrives when it continues."""
    far, first = traffic.far, len(traffic.captions)
    with network["west"].relay.stopped():
        for _ in range(100):
            traffic.captioner.send(messages.Chat("me", b"nobody hears this"))
        traffic.listener.wait_for(len(traffic.player.sent()) + 50, 10)
    seen = far.receive_until(lambda one: one.caption == b"%d" % (first + 60), 20)
    numbers = [int(one.caption) for one in seen if isinstance(one, messages.Caption)]
    assert numbers == list(range(numbers[0], first + 61))
    traffic.reaches_west()
    traffic.nothing_is_lost_at_east()
