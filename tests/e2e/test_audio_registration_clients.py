"""Which registrations count: those of a connected client, the latest from any address, until its
connection ends."""

from __future__ import annotations

import pytest
from audio_tools import fence, listening, on_air, outcome, register

from lab.audio.audio_socket import AudioSocket
from lab.protocol.messages import PIPE_AUDIO, LostConnection
from lab.stations.audio_stations import AudioReceiver, AudioSource, AudioStation
from lab.support.addresses import new_address

PROGRAM = 1
_NOT_CONNECTED = (
    "UDP registration marked as from client {}, but that ID not found in TCP registration table"
)


@pytest.fixture
def station(relay, make_station):
    station = make_station(relay, AudioStation)
    station.open_audio(relay)
    return station


def test_a_good_ticket_of_an_unconnected_client_is_refused(
    relay, server, make_station, route, station
):
    stranger = server.new_client_id()
    result = register(relay, station, server.ticket_for(stranger), 7, client_id=stranger)
    assert result.taken
    assert result.lines[1:] == [_NOT_CONNECTED.format(stranger)]
    # Nor later, when it connects: nothing was kept.
    source, witness = on_air(make_station, relay), listening(make_station, relay)
    newcomer = make_station(relay, AudioStation, client_id=stranger)
    for one in (newcomer, witness):
        route(relay, source, one, PIPE_AUDIO)
    witness.audio(0).expect(source.send_audio(b"word"))
    assert station.audio(0).receives_nothing(0.05)


def test_a_client_that_has_left_cannot_register(relay, server, make_station, station):
    other = make_station(relay, AudioStation)
    other.close()
    server.record.wait_for_type(LostConnection, client_id=other.client_id)
    ticket = server.ticket_for(other.client_id)
    result = register(relay, station, ticket, 5, client_id=other.client_id)
    assert result.lines[1:] == [_NOT_CONNECTED.format(other.client_id)]


def test_a_registration_ends_with_its_connection(relay, server, make_station, route):
    """The id comes back without audio; its registrations are forgotten."""
    source = on_air(make_station, relay, [PROGRAM])
    receiver = listening(make_station, relay, [PROGRAM])
    witness = listening(make_station, relay, [PROGRAM])
    for one in (receiver, witness):
        route(relay, source, one, PIPE_AUDIO)
    for one in (receiver, source):
        one.hang_up()
        server.record.wait_for_type(LostConnection, client_id=one.client_id)
    back = make_station(relay, AudioReceiver, client_id=receiver.client_id)
    again = make_station(relay, AudioSource, client_id=source.client_id)
    source.send_audio(b"nobody's", PROGRAM)
    again.go_on_air(relay, server.ticket_for, PROGRAM)
    word = again.send_audio(b"word", PROGRAM)
    witness.audio(PROGRAM).expect(word)
    assert receiver.audio(PROGRAM).receives_nothing(0.05)
    back.listen(relay, server.ticket_for, PROGRAM)
    back.audio(PROGRAM).expect(again.send_audio(b"again", PROGRAM))


def test_the_newest_connection_of_an_id_has_no_audio_of_the_older(relay, make_station, route):
    source = on_air(make_station, relay, [PROGRAM])
    older = listening(make_station, relay, [PROGRAM])
    witness = listening(make_station, relay, [PROGRAM])
    for one in (older, witness):
        route(relay, source, one, PIPE_AUDIO)
    make_station(relay, AudioReceiver, client_id=older.client_id)
    witness.audio(PROGRAM).expect(source.send_audio(b"word", PROGRAM))
    assert older.audio(PROGRAM).receives_nothing(0.05)


def test_registering_again_moves_a_receiver(relay, server, make_station, route):
    """To another port, and to another address; it is not logged."""
    source = on_air(make_station, relay, [PROGRAM])
    receiver = listening(make_station, relay, [PROGRAM])
    route(relay, source, receiver, PIPE_AUDIO)
    me, ticket = receiver.client_id, server.ticket_for(receiver.client_id)
    old = receiver.audio(PROGRAM)
    for address in (old.local_address[0], new_address()):
        with AudioSocket(relay, PROGRAM, client_id=me, address=address) as moved:
            result = outcome(relay, receiver, lambda: moved.register(me, ticket), audio=moved)
            assert result.lines == [
                f"UDP registration messages from source {me}, program_idx {PROGRAM}, addr {address}"
            ]
            moved.expect(source.send_audio(b"here", PROGRAM))
            assert old.receives_nothing(0.05)


def test_registering_again_moves_a_source(relay, server, make_station, route):
    """Only the address counts: the old one is unknown from then on, another port is not."""
    source = on_air(make_station, relay, [PROGRAM])
    receiver = listening(make_station, relay, [PROGRAM])
    route(relay, source, receiver, PIPE_AUDIO)
    me, heard = source.client_id, receiver.audio(PROGRAM)
    with AudioSocket(relay, PROGRAM, client_id=me, address=source.local_address[0]) as other_port:
        heard.expect(other_port.send(b"from another port"))
    with AudioSocket(relay, PROGRAM, client_id=me, address=new_address()) as moved:
        moved.send(b"not yet")
        moved.register(me, server.ticket_for(me), receive=False, send=True)
        source.send_audio(b"not any more", PROGRAM)
        heard.expect(moved.send(b"from here"))


def test_sources_and_receivers_are_distinguished(relay, server, make_station, route):
    """A receiver is not a source, and a source is not a receiver."""
    first = listening(make_station, relay, [PROGRAM])
    second = on_air(make_station, relay, [PROGRAM])
    witness = listening(make_station, relay, [PROGRAM])
    for source in (first, second):
        for receiver in (first, second, witness):
            route(relay, source, receiver, PIPE_AUDIO)
    first.audio(PROGRAM).send(b"of a receiver")
    word = second.send_audio(b"of a source", PROGRAM)
    witness.audio(PROGRAM).expect(word)
    first.audio(PROGRAM).expect(word)
    assert second.audio(PROGRAM).receives_nothing(0.05)


def test_ids_above_the_range_of_signed_numbers_work(relay, make_station, route):
    ids = [2**31 + 5, 2**32 - 7]
    source = on_air(make_station, relay, [PROGRAM], client_id=ids[0])
    receiver = listening(make_station, relay, [PROGRAM], client_id=ids[1])
    route(relay, source, receiver, PIPE_AUDIO)
    receiver.audio(PROGRAM).expect(source.send_audio(b"word", PROGRAM))


def test_a_refusal_that_cannot_be_delivered_affects_no_other_client(relay, server, make_station):
    """A client whose connection is gone by then is cleaned up, and the relay continues."""
    victim = make_station(relay, AudioStation, heartbeats=False)
    audio, witness = victim.open_audio(relay), make_station(relay, AudioStation)
    witness.open_audio(relay)
    with relay.stopped():
        for _ in range(3):
            audio.register_raw(victim.client_id, b"bad")
        victim.reset()
    server.record.wait_for_type(LostConnection, client_id=victim.client_id)
    audio.register_raw(victim.client_id, b"bad")
    fence(relay, audio)
    assert register(relay, witness, server.ticket_for(witness.client_id)).taken
    assert len(server.record.messages_of(LostConnection)) == 1
