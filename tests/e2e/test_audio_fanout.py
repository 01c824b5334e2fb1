"""One source for a hundred receivers, receivers that are also sources, a route back to its
source."""

from __future__ import annotations

from audio_tools import listening, on_air

from lab.audio.audio_socket import AudioSocket
from lab.protocol.messages import PIPE_AUDIO
from lab.stations.audio_stations import AudioStation
from lab.support.addresses import new_address

RECEIVERS = 100
PER_ADDRESS = 50
DATAGRAMS = 400


def test_a_hundred_receivers_get_everything_in_order(relay, make_station, route):
    source = on_air(make_station, relay)
    addresses = [new_address() for _ in range(RECEIVERS // PER_ADDRESS)]
    receivers = [
        listening(make_station, relay, source_ip=address)
        for address in addresses
        for _ in range(PER_ADDRESS)
    ]
    for receiver in receivers:
        relay.server.orders.connect_route(source.client_id, receiver.client_id, PIPE_AUDIO)
    routes = {(source.client_id, receiver.client_id, PIPE_AUDIO) for receiver in receivers}
    relay.schema.wait_for_routes(routes, 20)
    for start in range(0, DATAGRAMS, 50):
        sent = [source.send_audio(b"%06d" % number) for number in range(start, start + 50)]
        for receiver in receivers:
            assert receiver.audio(0).receive_count(50, 20) == sent
    assert all(receiver.audio(0).receives_nothing(0) for receiver in receivers)


def test_two_stations_receive_each_other_on_all_programs_but_the_first(
    relay, server, make_station, route
):
    """Sources that receive; a client that does both on program 0 is taken for a relay."""
    first, second = make_station(relay, AudioStation), make_station(relay, AudioStation)
    for one, other in ((first, second), (second, first)):
        route(relay, one, other, PIPE_AUDIO)
        for program in range(1, 6):
            one.register_audio(relay, server.ticket_for, program, receive=True, send=True)
    for number in range(20):
        for program in range(1, 6):
            for one, other in ((first, second), (second, first)):
                other.audio(program).expect(one.audio(program).send(b"%d" % number))


def test_a_route_back_to_its_source_is_followed(relay, server, make_station, route):
    station = make_station(relay, AudioStation)
    station.register_audio(relay, server.ticket_for, 1, receive=True, send=True)
    route(relay, station, station, PIPE_AUDIO)
    for number in range(50):
        station.audio(1).expect(station.audio(1).send(b"%d" % number))


def test_a_client_that_sends_and_receives_program_0_is_a_relay(relay, server, make_station, route):
    """It may pass on the audio of others; another relay gets none of it, including itself."""
    peer = make_station(relay, AudioStation, source_ip=new_address())
    other_peer = make_station(relay, AudioStation, source_ip=new_address())
    for one in (peer, other_peer):
        one.register_audio(relay, server.ticket_for, 0, receive=True, send=True)
    receiver, source = listening(make_station, relay), on_air(make_station, relay)
    far_away = server.new_client_id()
    for to in (receiver, peer, other_peer):
        route(relay, far_away, to, PIPE_AUDIO)
        route(relay, source, to, PIPE_AUDIO)
    # A source of this relay reaches all three.
    word = source.send_audio(b"word")
    for one in (receiver, peer, other_peer):
        one.audio(0).expect(word)
    # Audio that comes from a relay reaches stations only; routes between relays are removed.
    with AudioSocket(relay, 0, client_id=far_away, address=peer.local_address[0]) as from_peer:
        receiver.audio(0).expect(from_peer.send(b"from far away"))
        receiver.audio(0).expect(from_peer.send(b"more"))
    for one in (peer, other_peer):
        line = f"loop to relay peer {one.client_id}, originating client {far_away}."
        relay.log.expect(line)
        assert relay.log.count(line) == 1
        one.audio(0).expect(source.send_audio(b"later"))
    kept = {(source.client_id, to.client_id, PIPE_AUDIO) for to in (receiver, peer, other_peer)}
    relay.schema.wait_for_routes(kept | {(far_away, receiver.client_id, PIPE_AUDIO)})
