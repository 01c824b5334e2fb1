"""Audio between two joined relays: every program, both ways, with error correction, to many."""

from __future__ import annotations

import contextlib

import pytest

from lab.audio.audio_wire import CHANNELS, PROGRAMS
from lab.audio.clip_listener import ClipListener
from lab.audio.clip_player import CLIP, ClipPlayer
from lab.media import ogg_opus
from lab.protocol.messages import PIPE_AUDIO
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.stations.crowd import source_addresses

_SECS = 1.5


def on_air(network, at, program):
    """A source of one program at a relay."""
    source = network.station(AudioSource, at=at)
    source.go_on_air(network[at].relay, network.known(at).ticket_for, program)
    return source


def listening(network, at, program, **options):
    receiver = network.station(AudioReceiver, at=at, **options)
    receiver.listen(network[at].relay, network.known(at).ticket_for, program)
    return receiver


def players_to_the_end(players):
    for player in players:
        player.start()
    for player in players:
        player.finish()


@pytest.mark.parametrize("fec", [False, True], ids=["plain", "fec"])
def test_six_programs_cross_both_ways_at_once(make_network, fec):
    """A source of each program at both relays, a receiver of each at both: every datagram arrives
    at both receivers of its program, byte for byte, in order, once, and nothing of another program
    does. With error correction each channel arrives at its own port."""
    network = make_network(fec=fec)
    network.join("east", "west", audio=True)
    players, listeners = [], []
    packets = ogg_opus.read(CLIP)
    with contextlib.ExitStack() as closing:
        for at in ("east", "west"):
            for program in PROGRAMS:
                receiver = listening(network, at, program)
                listener = closing.enter_context(ClipListener(receiver.audio(program)))
                listeners.append((program, receiver, listener))
        for at in ("east", "west"):
            for program in PROGRAMS:
                source = on_air(network, at, program)
                for wanted, receiver, _ in listeners:
                    if wanted == program:
                        network.route(source, receiver, PIPE_AUDIO)
                audio = source.audio(program)
                players.append(ClipPlayer(audio, packets, seconds=_SECS, fec=fec))
        players_to_the_end(players)
        _judge(players, listeners, CHANNELS if fec else CHANNELS[:1])


def _judge(players, listeners, channels):
    for program, _, listener in listeners:
        own = [player for player in players if player.audio.program == program]
        for channel in channels:
            listener.wait_for(sum(len(one.sent(channel)) for one in own), 10, channel=channel)
            for player in own:
                speaker = player.audio.client_id
                sent = player.sent(channel)
                verdict = listener.verdict(sent, channel=channel, marked_id=speaker)
                assert verdict.perfect and verdict.sent > 50, verdict
    # All have played to the end: anything else that came by now is an error.
    for program, _, listener in listeners:
        own = [player for player in players if player.audio.program == program]
        for channel in CHANNELS:
            expected = sum(len(one.sent(channel)) for one in own)
            assert len(listener.arrived(channel)) == expected, (program, channel)


def test_error_correction_reaches_its_ports_and_no_other_program(make_network):
    """One program is sent on three channels; receivers of its neighbours at the far relay, whose
    sockets are where a copy could end up, get nothing, although all routes lead to them."""
    network = make_network(fec=True)
    network.join("east", "west", audio=True)
    source = on_air(network, "east", 2)
    receivers = {program: listening(network, "west", program) for program in PROGRAMS}
    for receiver in receivers.values():
        network.route(source, receiver, PIPE_AUDIO)
    for number in range(20):
        for channel in CHANNELS:
            said = source.send_audio(b"%d on channel %d" % (number, channel), 2, channel)
            receivers[2].audio(2).expect(said, channel=channel)
    # The last datagram of each program shows that nothing else came before it.
    for program, receiver in receivers.items():
        last = on_air(network, "west", program)
        network.route(last, receiver, PIPE_AUDIO)
        for channel in CHANNELS:
            sent = last.send_audio(b"last", program, channel)
            receiver.audio(program).expect(sent, channel=channel)


def test_a_hundred_receivers_get_a_source_at_the_other_relay(network):
    """Each datagram crosses between the relays once: if it were sent once for each receiver, each
    would receive it a hundred times."""
    network.join("east", "west", audio=True)
    source = on_air(network, "east", 4)
    places = source_addresses()
    receivers = [listening(network, "west", 4, source_ip=next(places)) for _ in range(100)]
    for receiver in receivers:
        ends = source.client_id, "east", receiver.client_id, "west"
        network.server.orders.route_across(*ends, PIPE_AUDIO)
    routes = {(source.client_id, receiver.client_id, PIPE_AUDIO) for receiver in receivers}
    network["west"].schema.wait_for_routes(routes, 20)
    network["east"].schema.wait_for_routes({(source.client_id, 1001, PIPE_AUDIO)})
    sent = [source.send_audio(b"%d" % number * 40, 4) for number in range(30)]
    for receiver in receivers:
        heard = receiver.audio(4)
        assert heard.receive_count(30, 10) == sent, heard.overflows
        assert not heard.receive_waiting()
    last = source.send_audio(b"last", 4)
    for receiver in receivers:
        receiver.audio(4).expect(last, 10)
