"""Two relays that are ordered to each other at the same moment end up with one working link."""

from __future__ import annotations

import signal

import pytest

from lab.audio.audio_wire import PROGRAMS
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.waiting import wait_until

_OTHER = {"east": "west", "west": "east"}
_IDS = {"east": 1000, "west": 1001}


def _order_both(network):
    for at, other in _OTHER.items():
        network.server.orders.join(at, other)


def _links_between(network):
    """How many TCP connections there are between the two relays, according to the kernel."""
    ends = {(network[at].relay.address, network[at].relay.tcp_port) for at in _OTHER}
    addresses = {address for address, _ in ends}
    found = set()
    with open("/proc/net/tcp", encoding="ascii") as table:
        for line in list(table)[1:]:
            local, remote, state = line.split()[1:4]
            if state == "01" and _read(local) in ends and _read(remote)[0] in addresses:
                # The table changes while it is read: one connection may be listed twice.
                found.add((local, remote))
    return len(found)


def _read(text):
    address, port = text.split(":")
    return ".".join(str(byte) for byte in reversed(bytes.fromhex(address))), int(port, 16)


@pytest.mark.parametrize("first", ["east", "west"])
@pytest.mark.parametrize("crossing", ["orders", "connects", "free"])
def test_one_working_link_remains(make_network, first, crossing):
    """Stopped while both orders reach them, then continued: both at once, or one far enough ahead
    for its connect to wait at the other. Whichever gives way, captions and audio cross both
    ways."""
    network = make_network()
    second = _OTHER[first]
    one, two = network[first].relay, network[second].relay
    if crossing == "free":
        _order_both(network)
    elif crossing == "orders":
        with one.stopped(), two.stopped():
            _order_both(network)
    else:
        with two.stopped():
            _order_both(network)
            one.log.expect("Non-blocking connection to relay")
            with one.stopped():
                two.signal(signal.SIGCONT)
                two.log.expect("Non-blocking connection to relay")
    wait_until(lambda: _links_between(network) == 1, 20, "one link between them")
    for at in _OTHER:
        network[at].log.expect(f"to rx audio program 1 at {network[_OTHER[at]].relay.address}", 30)
    _captions_cross(network)
    _audio_crosses(network)
    # Or not at all, once.
    wait_until(lambda: _links_between(network) == 1, 5, "still one link between them")
    for at, other in _OTHER.items():
        assert network[at].log.count(f"closing older connection with ID {_IDS[other]}") <= 1


def _captions_cross(network):
    for at, other in _OTHER.items():
        captioner, encoder = network.station(Captioner, at=at), network.station(Encoder, at=other)
        network.route(captioner, encoder, PIPE_CAPTION)
        for text in (b"one", b"two", b"three"):
            captioner.caption(text)
            assert encoder.receive_caption()[0] == text


def _audio_crosses(network):
    network.wait_audio_joined("east", "west")
    for at, other in _OTHER.items():
        source = network.station(AudioSource, at=at)
        receiver = network.station(AudioReceiver, at=other)
        network.route(source, receiver, PIPE_AUDIO)
        for program in PROGRAMS:
            source.go_on_air(network[at].relay, network.known(at).ticket_for, program)
            receiver.listen(network[other].relay, network.known(other).ticket_for, program)
            receiver.audio(program).expect(source.send_audio(b"over %d" % program, program))
